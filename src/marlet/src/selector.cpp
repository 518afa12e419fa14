#include <algorithm>
#include <chrono>
#include <thread>

#include "bus_qos.h"
#include "marlet/pair_codec.h"
#include "state.h"
#include "wire_view.h"

#include <dds/ddsi/ddsi_serdata.h>

namespace com::quorixtech::marlet {

namespace detail {

void SelectorState::closeReader() {
    wakeWaitset = 0;
    waitset.reset();
    reader.reset();
    subscriber.reset();
    writers = WriterWatch();
}

} // namespace detail

namespace {

using Sample = DataSample<std::vector<IOT_NVP>>;
using Clock = std::chrono::steady_clock;
constexpr long kLongestWaitMs = 365L * 24 * 3600 * 1000;

void openReader(detail::SelectorState &s) {
    s.closeReader();
    detail::ThingState &thing = *s.thing;
    const std::string partition = s.flow.empty() ? detail::anyFlowPartition() : detail::flowPartition(s.flow);
    const dds_entity_t participant = thing.participant->participant.get();
    const dds_entity_t topic = thing.participant->topic(s.tagGroup->topic);

    detail::Qos groupQos;
    detail::fillGroupQos(groupQos, partition, thing.userData());
    s.subscriber = detail::Entity(dds_create_subscriber(participant, groupQos.get(), nullptr), "dds_create_subscriber");
    detail::Qos readerQos;
    detail::fillReaderQos(readerQos, thing.userData(), s.tagGroup->qos);
    s.reader = detail::Entity(dds_create_reader(s.subscriber.get(), topic, readerQos.get(), nullptr),
                              ("dds_create_reader(" + s.tagGroup->topic + ")").c_str());
    const dds_entity_t condition =
        detail::check(dds_create_readcondition(s.reader.get(), DDS_ANY_STATE), "dds_create_readcondition");
    s.waitset = detail::Entity(dds_create_waitset(participant), "dds_create_waitset");
    detail::check(dds_waitset_attach(s.waitset.get(), condition, 0), "dds_waitset_attach");
    // Attached to itself, the waitset wakes its waiter when wakeReaders sets its trigger.
    detail::check(dds_waitset_attach(s.waitset.get(), s.waitset.get(), 0), "dds_waitset_attach");
    s.wakeWaitset = s.waitset.get();
    detail::WriterWatch::attach(s.reader.get(), s.waitset.get());
    s.readerFlow = s.flow;
}

// Drops the references of one take however decoding ends.
class SerdataGuard {
  public:
    SerdataGuard(std::vector<ddsi_serdata *> &taken, int32_t count) : taken_(taken), count_(count) {}
    ~SerdataGuard() {
        for (int32_t i = 0; i < count_; ++i)
            ddsi_serdata_unref(taken_[i]);
    }
    SerdataGuard(const SerdataGuard &) = delete;
    SerdataGuard &operator=(const SerdataGuard &) = delete;

  private:
    std::vector<ddsi_serdata *> &taken_;
    int32_t count_;
};

// Takes up to one batch in serialized form and queues each sample decoded
// straight from those bytes, or its decode error. Returns the number of
// samples with data.
std::size_t takeBatch(detail::SelectorState &s) {
    const std::size_t max = s.batch;
    s.taken.assign(max, nullptr);
    s.infos.resize(max);
    const int32_t n = detail::check(
        dds_takecdr(s.reader.get(), s.taken.data(), static_cast<uint32_t>(max), s.infos.data(), DDS_ANY_STATE),
        "dds_takecdr");
    SerdataGuard guard(s.taken, n);
    std::size_t queued = 0;
    for (int32_t i = 0; i < n; ++i) {
        // Disposals and unregistrations carry no payload.
        if (!s.infos[i].valid_data) continue;
        ddsi_serdata *serdata = s.taken[i];
        const std::uint32_t size = ddsi_serdata_size(serdata);
        ddsrt_iovec_t bytes;
        ddsi_serdata *held = ddsi_serdata_to_ser_ref(serdata, 0, size, &bytes);
        detail::SelectorState::Pending entry;
        try {
            detail::WireView wire =
                detail::parseWireSample(static_cast<const std::uint8_t *>(bytes.iov_base), bytes.iov_len);
            try {
                auto pairs = codec::decode(wire.payload, wire.payloadSize);
                entry.sample.emplace(std::move(pairs), std::move(wire.sourceId), std::move(wire.flowId),
                                     std::move(wire.tagGroup), wire.sequenceNumber, wire.sourceTime,
                                     std::move(wire.sessionId));
            } catch (const DecodeError &e) {
                entry.error = "sample " + std::to_string(wire.sequenceNumber) + " from \"" + wire.sourceId + "\" on " +
                              s.tagGroup->topic + ": " + e.what();
            }
        } catch (const DecodeError &e) {
            entry.error = std::string("sample on ") + s.tagGroup->topic + ": " + e.what();
        }
        ddsi_serdata_to_ser_unref(held, &bytes);
        s.pending.push_back(std::move(entry));
        ++queued;
    }
    return queued;
}

// Hands out queued samples up to the batch size, stopping before a bad one;
// a bad one at the front is reported on its own.
std::vector<Sample> servePending(detail::SelectorState &s) {
    std::vector<Sample> out;
    while (!s.pending.empty() && out.size() < s.batch) {
        auto &front = s.pending.front();
        if (!front.sample) {
            if (!out.empty()) break;
            const std::string error = std::move(front.error);
            s.pending.pop_front();
            throw DecodeError(error);
        }
        out.push_back(std::move(*front.sample));
        s.pending.pop_front();
    }
    return out;
}

} // namespace

Thing::Selector Thing::select(const std::string &input) {
    if (!state_) throw MarletError("select on an empty Thing handle");
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->ensureOpen();
    }
    Selector selector;
    selector.state_ = std::make_shared<detail::SelectorState>();
    selector.state_->thing = state_;
    selector.state_->input = input;
    selector.state_->tagGroup = state_->resolve(state_->inputs, input);
    {
        std::lock_guard<std::mutex> lock(state_->selectorsMutex);
        auto &known = state_->selectors;
        known.erase(std::remove_if(known.begin(), known.end(), [](const auto &w) { return w.expired(); }), known.end());
        known.push_back(selector.state_);
    }
    return selector;
}

void Thing::wakeReaders() {
    if (!state_) return;
    std::lock_guard<std::mutex> lock(state_->selectorsMutex);
    for (const auto &weak : state_->selectors) {
        auto selector = weak.lock();
        if (!selector) continue;
        selector->woken = true;
        // A handle deleted meanwhile only makes this call fail; handles are not pointers.
        if (const dds_entity_t waitset = selector->wakeWaitset.load()) dds_waitset_set_trigger(waitset, true);
    }
}

Thing::Selector &Thing::Selector::flow(const std::string &flowId) {
    if (!state_) throw MarletError("flow on an empty Selector");
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->flow = flowId;
    return *this;
}

Thing::Selector &Thing::Selector::batch(std::size_t maxSamples) {
    if (!state_) throw MarletError("batch on an empty Selector");
    if (maxSamples == 0) throw MarletError("a selector batch holds at least one sample");
    if (maxSamples > static_cast<std::size_t>(INT32_MAX)) throw MarletError("selector batch too large");
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->batch = maxSamples;
    return *this;
}

std::vector<DataSample<std::vector<IOT_NVP>>> Thing::Selector::readPairs(long timeoutMs) {
    if (!state_) throw MarletError("read on an empty Selector");
    detail::SelectorState &s = *state_;
    std::lock_guard<std::mutex> lock(s.mutex);
    // Negative means do not wait; a year stands in for "for ever" without
    // overflowing the deadline arithmetic.
    const auto timeout = std::chrono::milliseconds(std::clamp<long>(timeoutMs, 0, kLongestWaitMs));
    bool closed;
    {
        std::lock_guard<std::mutex> thingLock(s.thing->mutex);
        closed = s.thing->closed;
    }
    if (closed) {
        // As for a wrong name: a reader loop that outlives its thing must not spin.
        std::this_thread::sleep_for(timeout);
        throw MarletError("read on closed thing \"" + s.thing->id + "\"");
    }
    if (!s.pending.empty()) return servePending(s);

    if (!s.tagGroup) {
        // Waiting out the timeout keeps a reader loop on a wrong name from spinning.
        std::this_thread::sleep_for(timeout);
        throw MarletError("thing \"" + s.thing->id + "\" of class " + s.thing->thingClass + " has no input \"" +
                          s.input + "\" and no tag group of that name is registered");
    }
    if (!s.reader || s.readerFlow != s.flow) {
        try {
            openReader(s);
        } catch (const DdsError &) {
            // A reader DDS refuses (one that security does not allow, say) is
            // refused again on the next read: as for a wrong name, waiting out
            // the timeout keeps a reader loop from spinning.
            s.closeReader();
            std::this_thread::sleep_for(timeout);
            throw;
        }
    }

    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (s.woken.exchange(false)) {
            dds_waitset_set_trigger(s.waitset.get(), false);
            return {};
        }
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
        const dds_duration_t wait = left.count() > 0 ? static_cast<dds_duration_t>(left.count()) : 0;
        const dds_return_t triggered =
            detail::check(dds_waitset_wait(s.waitset.get(), nullptr, 0, wait), "dds_waitset_wait");
        if (triggered > 0) {
            s.writers.update(s.reader.get(), s.tagGroup->topic, s.thing->participant->goneReports);
            if (takeBatch(s) > 0) return servePending(s);
        }
        if (Clock::now() >= deadline) return {};
    }
}

} // namespace com::quorixtech::marlet
