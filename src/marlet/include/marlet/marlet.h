#pragma once
// Bus client library: a participant (Marlet) on Eclipse Cyclone DDS, JSON
// registries of tag groups and thing classes, thing properties, things with
// outputs (writers) and inputs (selectors over readers), data samples and
// dispatchers.
//
// Mapping onto DDS: a tag group is a DDS topic (all topics share one type that
// carries a few typed header fields and the encoded pair tree); a thing is a
// set of writers and readers as its thing class defines them; the context id
// of a thing is its flow, carried as a DDS partition so that flow selection is
// done by the middleware.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "marlet/export.h"
#include "marlet/iot_value.h"

namespace com::quorixtech::marlet {

using iot::IOT_NVP;
using iot::IOT_VALUE;

// Every failure of the library is one of these; the message says what failed.
class MARLET_API MarletError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A configuration or definition file that is missing or malformed.
class MARLET_API ConfigError : public MarletError {
  public:
    using MarletError::MarletError;
};

// A DDS call that returned an error; the message names the call and dds_strretcode.
class MARLET_API DdsError : public MarletError {
  public:
    DdsError(const std::string &call, int retcode);
    int retcode() const { return retcode_; }

  private:
    int retcode_;
};

// Bytes from the network that do not decode as a pair tree.
class MARLET_API DecodeError : public MarletError {
  public:
    using MarletError::MarletError;
};

// ---- definitions -----------------------------------------------------------

struct FieldDefinition {
    std::string name;
    iot::IotKind kind = iot::IotKind::none;
};

// How the samples of one tag group travel: the "qos" object of its definition
// (docs/bus-definitions.md). Writers and readers of a group must use the same
// settings, so every process of a bus reads the same definition files.
struct TagGroupQos {
    // Reliable: lost fragments are sent again. Best effort: a lost fragment costs its sample.
    bool reliable = true;
    // Writers: keep-all holds every sample until each reader acknowledged it,
    // so a reader that stops acknowledging makes write() wait; keep-last holds
    // the newest `depth` samples and lets a reader that fell further behind
    // miss the older ones.
    bool keepAll = false;
    std::int32_t depth = 100;
    // Readers: the newest readerDepth samples not yet taken; 0 keeps every
    // sample that arrived until the application takes it.
    std::int32_t readerDepth = 0;
    // Longest wait of one write for readers to make room; then the sample is dropped.
    std::int64_t maxBlockingMs = 2000;
    // A writer that shows no sign of life for this long is taken for gone by its
    // readers; 0 leaves it to the bus configuration's participant lease.
    std::int64_t livelinessLeaseMs = 0;
};

struct TagGroupDefinition {
    std::string nameSpace; // e.g. "com.vision.data"
    std::string name;      // e.g. "VideoFrameData"
    std::string version;
    std::string topic; // DDS topic name
    std::string description;
    std::vector<FieldDefinition> fields;
    TagGroupQos qos;
    std::string qualifiedName() const { return nameSpace + ":" + name; }
};

struct PortDefinition {
    std::string name;     // input or output name used by write() and select()
    std::string tagGroup; // qualified tag-group name "namespace:name"
};

struct ThingClassDefinition {
    std::string nameSpace;
    std::string name;
    std::string version;
    std::string description;
    std::vector<PortDefinition> inputs;
    std::vector<PortDefinition> outputs;
    std::string qualifiedName() const { return nameSpace + ":" + name; }
};

class MARLET_API TagGroupRegistry {
  public:
    virtual ~TagGroupRegistry() = default;
    const std::vector<TagGroupDefinition> &tagGroups() const { return tagGroups_; }

  protected:
    std::vector<TagGroupDefinition> tagGroups_;
};

class MARLET_API JSonTagGroupRegistry : public TagGroupRegistry {
  public:
    JSonTagGroupRegistry() = default;
    // Reads every tag group of one JSON file ("file://" URI). Throws ConfigError.
    void registerTagGroupsFromURI(const std::string &uri);
    void registerTagGroupsFromString(const std::string &json, const std::string &origin = "<string>");
};

class MARLET_API ThingClassRegistry {
  public:
    virtual ~ThingClassRegistry() = default;
    const std::vector<ThingClassDefinition> &thingClasses() const { return thingClasses_; }

  protected:
    std::vector<ThingClassDefinition> thingClasses_;
};

class MARLET_API JSonThingClassRegistry : public ThingClassRegistry {
  public:
    JSonThingClassRegistry() = default;
    void registerThingClassesFromURI(const std::string &uri);
    void registerThingClassesFromString(const std::string &json, const std::string &origin = "<string>");
};

class MARLET_API ThingProperties {
  public:
    virtual ~ThingProperties() = default;
    const std::string &thingId() const { return thingId_; }
    const std::string &thingClass() const { return thingClass_; }
    const std::string &contextId() const { return contextId_; }
    const std::string &name() const { return name_; }
    bool valid() const { return !thingId_.empty() && !thingClass_.empty(); }

  protected:
    std::string thingId_;
    std::string thingClass_;
    std::string contextId_;
    std::string name_;
};

class MARLET_API JSonThingProperties : public ThingProperties {
  public:
    JSonThingProperties() = default;
    void readPropertiesFromURI(const std::string &uri);
    void readPropertiesFromString(const std::string &json, const std::string &origin = "<string>");

  private:
    void readProperties(const std::string &json, const std::string &origin);
};

// ---- samples, things, selectors ------------------------------------------

template <typename T> class DataSample {
  public:
    DataSample() = default;
    DataSample(T data, std::string sourceId, std::string flowId, std::string tagGroup, std::uint64_t sequence,
               std::int64_t sourceTimeNs, std::string sessionId = {})
        : data_(std::move(data)), sourceId_(std::move(sourceId)), flowId_(std::move(flowId)),
          tagGroup_(std::move(tagGroup)), sequence_(sequence), sourceTimeNs_(sourceTimeNs),
          sessionId_(std::move(sessionId)) {}

    const T &getData() const { return data_; }
    T &getData() { return data_; }
    const std::string &getSourceId() const { return sourceId_; }
    const std::string &getFlowId() const { return flowId_; }
    const std::string &getTagGroup() const { return tagGroup_; }
    // The publisher that wrote it: the same for all the tag groups of one
    // session (Thing::joinSession), so a subscriber can tell which frames and
    // results belong together.
    const std::string &getSessionId() const { return sessionId_; }
    std::uint64_t getSequence() const { return sequence_; }
    // Nanoseconds since 1970 on the writer's clock, taken when it wrote the sample.
    std::int64_t getSourceTime() const { return sourceTimeNs_; }

  private:
    T data_{};
    std::string sourceId_;
    std::string flowId_;
    std::string tagGroup_;
    std::uint64_t sequence_ = 0;
    std::int64_t sourceTimeNs_ = 0;
    std::string sessionId_;
};

class MARLET_API DiscoveredThing {
  public:
    virtual ~DiscoveredThing() = default;
    virtual std::string getId() const = 0;
    virtual std::string getContextId() const = 0;
};

namespace detail {
struct ParticipantState;
struct ThingState;
struct SelectorState;
} // namespace detail

class MARLET_API Thing : public DiscoveredThing {
  public:
    class Selector {
      public:
        Selector() = default;
        // Narrows the selection to one flow (context id); an empty id selects every flow.
        Selector &flow(const std::string &flowId);
        // Largest number of samples one read returns (default 1, so that one bad
        // sample never costs the good ones around it).
        Selector &batch(std::size_t maxSamples);
        // Blocks up to timeout milliseconds for samples; returns an empty list
        // when none arrived. A sample whose bytes do not decode raises DecodeError
        // (the samples before it are returned first, by the previous call).
        template <typename T> std::vector<DataSample<T>> read(long timeoutMs);

      private:
        friend class Thing;
        std::vector<DataSample<std::vector<IOT_NVP>>> readPairs(long timeoutMs);
        std::shared_ptr<detail::SelectorState> state_;
    };

    Thing() = default;
    std::string getId() const override;
    std::string getContextId() const override;
    bool valid() const { return static_cast<bool>(state_); }
    // Things that publish for one session (one publisher) share a session id,
    // written into every sample they send; by default a thing is a session of
    // its own. Join before the first write.
    void joinSession(const std::string &session);
    // Whether write (select) can reach a tag group under this name: a port of
    // the thing's class whose tag group is registered, or a registered tag
    // group of that name.
    bool hasOutput(const std::string &output) const;
    bool hasInput(const std::string &input) const;

    // Publishes one sample on the named output. Throws MarletError.
    template <typename T> void write(const std::string &output, const T &data);
    // Encoded in place: the payload is built once and handed to DDS. A write
    // that waits longer than the writer's blocking time for a reader that does
    // not acknowledge drops the sample (counted, reported on stderr) instead
    // of failing.
    void writePairs(const std::string &output, const std::vector<IOT_NVP> &pairs);
    // The same, with the byte sequence of one top-level pair (left empty in
    // pairs) written by fill straight into the memory the sample is sent
    // from, so that a picture is produced where it travels from instead of
    // being copied there. fill gets exactly size bytes; what it throws
    // propagates and nothing is written.
    struct InPlaceBytes {
        std::size_t pair;
        std::size_t size;
        std::function<void(std::uint8_t *)> fill;
    };
    void writePairs(const std::string &output, const std::vector<IOT_NVP> &pairs, const InPlaceBytes &inPlace);
    // Samples dropped so far because a reader did not keep up.
    std::uint64_t droppedWrites() const;

    Selector select(const std::string &input);
    // Makes every read on this thing's selectors that is blocked now, or the
    // next one on each, return at once with no samples: a reader loop that is
    // told to stop then sees it without waiting out its read timeout.
    void wakeReaders();
    // Idempotent.
    void close();

  private:
    friend class Marlet;
    std::shared_ptr<detail::ThingState> state_;
};

template <>
inline void Thing::write<std::vector<IOT_NVP>>(const std::string &output, const std::vector<IOT_NVP> &data) {
    writePairs(output, data);
}

template <>
inline std::vector<DataSample<std::vector<IOT_NVP>>> Thing::Selector::read<std::vector<IOT_NVP>>(long timeoutMs) {
    return readPairs(timeoutMs);
}

// ---- listeners and dispatchers --------------------------------------------

class MARLET_API BaseDataListener {
  public:
    virtual ~BaseDataListener() = default;
    virtual void onData(const DataSample<std::vector<IOT_NVP>> &sample) = 0;
};

class MARLET_API Dispatcher {
  public:
    // Wakes every thread blocked in waitEvent.
    void throwEvent();
    // Returns true when an event was thrown since the last wait, false on timeout.
    bool waitEvent(std::chrono::milliseconds timeout);

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::uint64_t events_ = 0;
    std::uint64_t seen_ = 0;
};

// ---- the participant ------------------------------------------------------

class MARLET_API Marlet {
  public:
    Marlet() = default;
    // args: "config=" followed by a "file://" URI of the bus configuration.
    // One participant per configuration file within a process: a second call
    // with the same configuration returns a handle to the same participant.
    static Marlet getInstance(const std::string &args);

    void addTagGroupRegistry(const TagGroupRegistry &registry);
    void addThingClassRegistry(const ThingClassRegistry &registry);
    Thing createThing(const ThingProperties &properties);
    // Releases this handle; the participant goes when its last handle does. Idempotent.
    void close();

    bool valid() const { return static_cast<bool>(state_); }
    int domainId() const;

  private:
    static Marlet openInstance(const std::string &args);
    Thing makeThing(const ThingProperties &properties);
    std::shared_ptr<detail::ParticipantState> state_;
};

// Turns "file://path" into "path"; leaves other text alone.
MARLET_API std::string uriToPath(const std::string &uri);

// The DDS topic name of a tag group's topic: '.' becomes '/' ("com.vision.data.X"
// -> "com/vision/data/X"), other characters DDS does not allow become '_', and a
// leading digit gets a '_' in front. Tools that watch the bus through DDS itself
// find the library's topics by it.
MARLET_API std::string ddsTopicName(const std::string &topic);

} // namespace com::quorixtech::marlet
