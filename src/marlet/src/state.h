#pragma once
// Shared state behind the value-like handles Marlet, Thing and Thing::Selector.
// Each handle holds a shared_ptr; a thing keeps its participant alive and a
// selector keeps its thing alive, so DDS entities are always deleted children
// before parents.

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "BusSample.h"
#include "dds_entity.h"
#include "marlet/marlet.h"
#include "sample_serdata.h"
#include "writer_watch.h"

struct ddsi_serdata;

namespace com::quorixtech::marlet::detail {

// A DDS domain created from one configuration text; shared by every
// participant of this process on that domain id.
struct DomainHandle {
    int id = 0;
    Entity domain; // empty when the domain was already created by other code in this process
    ~DomainHandle();
};

struct ParticipantState {
    std::string configPath;
    std::shared_ptr<DomainHandle> domain; // declared first: outlives the participant
    Entity participant;

    std::mutex mutex; // guards the definitions and the topic cache
    std::vector<TagGroupDefinition> tagGroups;
    std::vector<ThingClassDefinition> thingClasses;
    std::map<std::string, dds_entity_t> topics; // owned by the participant entity
    std::map<std::string, WriterTopic> writerTopics; // the same topics, for writers
    GoneReports goneReports;                    // publishers this process has reported gone

    // Latest registration wins, so later files can redefine a qualified name.
    std::optional<TagGroupDefinition> tagGroupByQualifiedName(const std::string &qualified);
    std::optional<TagGroupDefinition> tagGroupByName(const std::string &name);
    std::optional<ThingClassDefinition> thingClass(const std::string &qualified);
    dds_entity_t topic(const std::string &topicName);
    WriterTopic writerTopic(const std::string &topicName);
};

// One output of a thing: its writer and the memory its samples are encoded into.
struct WriterSlot {
    WriterSlot() : buffers(SampleBuffers::create()) {}
    ~WriterSlot() { buffers->release(); }
    WriterSlot(const WriterSlot &) = delete;
    WriterSlot &operator=(const WriterSlot &) = delete;

    std::mutex mutex; // one write at a time per output
    TagGroupDefinition tagGroup;
    std::string qualifiedName;
    dds_entity_t writer = 0; // child of the thing's publisher
    const ddsi_sertype *sampleType = nullptr;
    SampleBuffers *buffers; // shared with the samples DDS still holds
    std::uint64_t sequence = 0;
    std::uint64_t dropped = 0; // writes given up on a reader that did not keep up
};

struct ThingState {
    std::shared_ptr<ParticipantState> participant;
    std::string id;
    std::string thingClass;
    std::string contextId;
    std::string name;
    std::string session; // written into every sample; the thing id unless joinSession set another
    std::map<std::string, TagGroupDefinition> outputs; // resolved at creation
    std::map<std::string, TagGroupDefinition> inputs;

    std::mutex mutex; // guards closed and writers
    bool closed = false;
    Entity publisher;
    std::map<std::string, std::shared_ptr<WriterSlot>> writers;

    // The selectors made on this thing, so that wakeReaders can reach readers blocked in a read.
    std::mutex selectorsMutex;
    std::vector<std::weak_ptr<SelectorState>> selectors;

    ~ThingState();
    std::string userData() const;
    // The tag group behind an output or input name; falls back to a registered
    // tag group of that name so that callers may address groups directly.
    std::optional<TagGroupDefinition> resolve(const std::map<std::string, TagGroupDefinition> &ports,
                                              const std::string &port) const;
    void ensureOpen() const;
};

struct SelectorState {
    std::shared_ptr<ThingState> thing;
    std::string input;
    std::optional<TagGroupDefinition> tagGroup;

    std::mutex mutex; // a selector is read by one thread at a time; flow() may come from another
    std::string flow;
    std::size_t batch = 1;

    // Reader side, created on the first read and again when the flow changes.
    Entity subscriber;
    Entity reader;
    Entity waitset;
    std::string readerFlow;
    // Set by Thing::wakeReaders from another thread: the read in progress (or
    // the next one) returns at once. The waitset handle is kept apart from
    // the entity so that the waking thread never touches the entity itself.
    std::atomic<bool> woken{false};
    std::atomic<dds_entity_t> wakeWaitset{0};
    WriterWatch writers; // the reader's matched writers, to report those that go

    // Samples taken from DDS but not yet returned, in arrival order; a sample
    // that did not decode is kept as its error so it is reported in its place.
    struct Pending {
        std::optional<DataSample<std::vector<IOT_NVP>>> sample;
        std::string error;
    };
    std::deque<Pending> pending;
    std::vector<ddsi_serdata *> taken;
    std::vector<dds_sample_info_t> infos;

    void closeReader();
};

std::int64_t nowNs();

} // namespace com::quorixtech::marlet::detail
