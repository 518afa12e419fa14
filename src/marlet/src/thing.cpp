#include <iostream>

#include "bus_qos.h"
#include "marlet/pair_codec.h"
#include "report.h"
#include "state.h"

namespace com::quorixtech::marlet {

namespace detail {

ThingState::~ThingState() {
    // Writers go with their publisher; the topics stay with the participant.
    writers.clear();
    publisher.reset();
}

std::string ThingState::userData() const { return "thingId=" + id + ";thingClass=" + thingClass; }

std::optional<TagGroupDefinition> ThingState::resolve(const std::map<std::string, TagGroupDefinition> &ports,
                                                      const std::string &port) const {
    if (auto it = ports.find(port); it != ports.end()) return it->second;
    return participant->tagGroupByName(port);
}

void ThingState::ensureOpen() const {
    if (closed) throw MarletError("thing \"" + id + "\" is closed");
}

} // namespace detail

namespace {

std::map<std::string, TagGroupDefinition> resolvePorts(detail::ParticipantState &participant,
                                                       const std::vector<PortDefinition> &ports) {
    std::map<std::string, TagGroupDefinition> resolved;
    for (const PortDefinition &port : ports) {
        // A port whose tag group is not registered yet is left out; it can
        // still be reached later through a registered group of the same name.
        if (auto group = participant.tagGroupByQualifiedName(port.tagGroup)) resolved[port.name] = *group;
    }
    return resolved;
}

std::shared_ptr<detail::WriterSlot> writerFor(detail::ThingState &thing, const std::string &output) {
    std::lock_guard<std::mutex> lock(thing.mutex);
    thing.ensureOpen();
    if (auto it = thing.writers.find(output); it != thing.writers.end()) return it->second;

    auto group = thing.resolve(thing.outputs, output);
    if (!group) {
        throw MarletError("thing \"" + thing.id + "\" of class " + thing.thingClass + " has no output \"" + output +
                          "\" and no tag group of that name is registered");
    }
    auto slot = std::make_shared<detail::WriterSlot>();
    slot->tagGroup = *group;
    slot->qualifiedName = group->qualifiedName();
    const detail::WriterTopic topic = thing.participant->writerTopic(group->topic);
    detail::Qos qos;
    detail::fillWriterQos(qos, thing.userData(), group->qos);
    slot->writer = detail::check(dds_create_writer(thing.publisher.get(), topic.topic, qos.get(), nullptr),
                                 ("dds_create_writer(" + group->topic + ")").c_str());
    slot->sampleType = topic.type;
    thing.writers.emplace(output, slot);
    return slot;
}

} // namespace

Thing Marlet::createThing(const ThingProperties &properties) {
    return detail::reportingFailures([&] { return makeThing(properties); });
}

Thing Marlet::makeThing(const ThingProperties &properties) {
    if (!state_) throw MarletError("createThing on a closed Marlet handle");
    if (!properties.valid()) throw MarletError("cannot create a thing from properties without thingId and thingClass");
    auto thingClass = state_->thingClass(properties.thingClass());
    if (!thingClass)
        throw MarletError("createThing(" + properties.thingId() + "): thing class " + properties.thingClass() +
                          " is not registered (its definition did not load, or the properties are of another class)");

    auto thing = std::make_shared<detail::ThingState>();
    thing->participant = state_;
    thing->id = properties.thingId();
    thing->thingClass = properties.thingClass();
    thing->contextId = properties.contextId();
    thing->name = properties.name();
    thing->session = thing->id;
    thing->outputs = resolvePorts(*state_, thingClass->outputs);
    thing->inputs = resolvePorts(*state_, thingClass->inputs);

    detail::Qos qos;
    detail::fillGroupQos(qos, detail::flowPartition(thing->contextId), thing->userData());
    thing->publisher =
        detail::Entity(dds_create_publisher(state_->participant.get(), qos.get(), nullptr), "dds_create_publisher");

    Thing handle;
    handle.state_ = std::move(thing);
    return handle;
}

std::string Thing::getId() const { return state_ ? state_->id : std::string(); }

void Thing::joinSession(const std::string &session) {
    if (!state_) throw MarletError("joinSession on an empty Thing handle");
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->session = session;
}

bool Thing::hasOutput(const std::string &output) const {
    return state_ && state_->resolve(state_->outputs, output).has_value();
}

bool Thing::hasInput(const std::string &input) const {
    return state_ && state_->resolve(state_->inputs, input).has_value();
}

std::string Thing::getContextId() const { return state_ ? state_->contextId : std::string(); }

namespace {
// First drop and then every hundredth: a stalled reader at 30 fps must not
// flood the log, but the operator has to learn that samples are being lost.
void reportDroppedWrite(const detail::WriterSlot &slot) {
    if (slot.dropped == 1 || slot.dropped % 100 == 0)
        std::cerr << "marlet: a reader of " << slot.tagGroup.topic
                  << " is not keeping up; write timed out and the sample was dropped (" << slot.dropped << " so far)"
                  << std::endl;
}

// Encodes a sample straight into the memory DDS sends it from and hands it
// over. encode writes exactly size payload bytes; a sample it fails to build
// is never sent and takes no sequence number.
void writeEncoded(const detail::ThingState &thing, detail::WriterSlot &slot, std::size_t size,
                  const std::function<void(std::uint8_t *)> &encode) {
    std::lock_guard<std::mutex> lock(slot.mutex);
    detail::OutgoingSample sample(
        slot.sampleType, *slot.buffers,
        {thing.id, thing.contextId, thing.session, slot.qualifiedName, slot.sequence + 1, detail::nowNs()}, size);
    encode(sample.payload());
    ++slot.sequence;
    // The call name is built only on failure: this path runs for every frame.
    const dds_return_t rc = sample.write(slot.writer);
    if (rc == DDS_RETCODE_TIMEOUT) {
        // A reader stopped acknowledging (stalled, or died and its lease has
        // not run out yet). Giving up on this one sample keeps the publishing
        // pipeline alive; failing the write would take the camera down with
        // the slowest consumer.
        ++slot.dropped;
        reportDroppedWrite(slot);
        return;
    }
    if (rc < 0) throw DdsError("dds_writecdr(" + slot.tagGroup.topic + ")", rc);
}
} // namespace

void Thing::writePairs(const std::string &output, const std::vector<IOT_NVP> &pairs) {
    if (!state_) throw MarletError("write on an empty Thing handle");
    std::shared_ptr<detail::WriterSlot> slot = writerFor(*state_, output);
    const std::size_t size = codec::encodedSize(pairs);
    writeEncoded(*state_, *slot, size, [&](std::uint8_t *out) { codec::encodeInto(pairs, out, size); });
}

void Thing::writePairs(const std::string &output, const std::vector<IOT_NVP> &pairs, const InPlaceBytes &inPlace) {
    if (!state_) throw MarletError("write on an empty Thing handle");
    std::shared_ptr<detail::WriterSlot> slot = writerFor(*state_, output);
    const codec::Reserved reserved{inPlace.pair, inPlace.size};
    const std::size_t size = codec::encodedSize(pairs, reserved);
    writeEncoded(*state_, *slot, size,
                 [&](std::uint8_t *out) { inPlace.fill(codec::encodeInto(pairs, out, size, reserved)); });
}

std::uint64_t Thing::droppedWrites() const {
    if (!state_) return 0;
    std::lock_guard<std::mutex> lock(state_->mutex);
    std::uint64_t total = 0;
    for (const auto &[name, slot] : state_->writers) {
        std::lock_guard<std::mutex> slotLock(slot->mutex);
        total += slot->dropped;
    }
    return total;
}

void Thing::close() {
    if (!state_) return;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->closed = true;
        state_->writers.clear();
        state_->publisher.reset();
    }
    state_.reset();
}

} // namespace com::quorixtech::marlet
