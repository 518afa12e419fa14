#pragma once
// The bus session of one element: the participant, the main thing, further
// things keyed by tag-group name, and the reader threads that turn received
// samples into records for a receiver.

#include <atomic>
#include <cstdint>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "marlet/marlet.h"

#include "frame_information.h"
#include "pairing.h"
#include "uni_information.h"

class ReceiveImage;

struct Edge {
    using Marlet = com::quorixtech::marlet::Marlet;
    using Thing = com::quorixtech::marlet::Thing;
    using BaseDataListener = com::quorixtech::marlet::BaseDataListener;
    using Dispatcher = com::quorixtech::marlet::Dispatcher;
    using IOT_NVP = com::quorixtech::iot::IOT_NVP;
    using Sample = com::quorixtech::marlet::DataSample<std::vector<IOT_NVP>>;

    // Finds a configuration root holding every file (paths relative to the
    // root) and opens a session on it; empty when no root holds them all.
    static std::shared_ptr<Edge> create(const std::string &configFile, const std::string &propertiesFile,
                                        const std::string &thingClassFile,
                                        const std::vector<std::string> &tagGroupFiles, std::string edgeProperty);

    // Opens the participant and the main thing. Use create(); public for make_shared.
    Edge(std::string configUri, std::string thingPropertiesUri, std::string thingClassUri,
         std::vector<std::string> tagGroupUris, std::string edgeProperty);
    ~Edge();
    Edge(const Edge &) = delete;
    Edge &operator=(const Edge &) = delete;

    Thing createThing(const std::vector<std::string> &tagGroupUris, const std::string &thingClassUri,
                      const std::string &propertiesUri, bool autoId);
    void AddThing(const std::string &name, const std::string &propertiesFile, const std::string &thingClassFile,
                  const std::vector<std::string> &tagGroupFiles);
    void writeSample(const std::string &tagGroupName, const std::vector<IOT_NVP> &data);
    // The same, with one byte sequence written in place (see Thing::InPlaceBytes).
    void writeSample(const std::string &tagGroupName, const std::vector<IOT_NVP> &data,
                     const Thing::InPlaceBytes &inPlace);
    bool deinit();
    // Opens again what deinit closed (participant, main thing, added things)
    // from the same files, so that an element can restart on this session.
    // Does nothing while the session is open; throws what opening throws.
    void reopen();

    // Says which of these relative files no configuration root holds.
    static std::string describeMissing(const std::vector<std::string> &files);
    // Throws ConfigError (and says why on standard error) unless the main
    // thing can publish (output) or subscribe to the named tag group.
    void requireMainPort(const std::string &name, bool output);
    // Says on standard error why a session cannot open, and throws that as ConfigError.
    [[noreturn]] static void failOpen(const std::string &problem);

    // The thing that writes the named tag group: the one added for it, else the main thing.
    Thing &writerOf(const std::string &tagGroupName);

    // Reader thread bodies; see read() for the loop.
    template <typename Receiver, typename R> void run_read(Receiver *receiver, const std::string &input);
    template <typename Receiver, typename R>
    void run_read_flow(Receiver *receiver, const std::string &input, const std::string &flowId);
    template <typename Receiver, typename R> void read(Receiver *receiver, Thing::Selector selector);

    std::string configUri;
    std::string thingPropertiesUri;
    std::string thingClassUri;
    std::vector<std::string> tagGroupUris;
    std::string thingId;
    // Names this session as a publisher in every sample its things write.
    std::string sessionId;
    std::string edgeProperty;
    std::atomic<bool> stopRequested{false};
    // Readers add and remove 3 each: only zero versus non-zero matters, and
    // peers that inspect the counter expect multiples of 3.
    std::atomic<std::uint8_t> activeReaders{0};
    // Samples the readers could not take (malformed, wrong kinds): each is
    // also reported on standard output as it comes.
    std::atomic<std::uint64_t> rejectedSamples{0};
    Marlet bus;
    std::map<std::string, Thing> things;
    Thing thing;
    std::vector<std::thread> readThreads;
    std::vector<std::pair<std::shared_ptr<BaseDataListener>, std::shared_ptr<Dispatcher>>> listeners;

    // The source starts its frame reader on the main thing before it adds the
    // other things, so a reader may look a name up while AddThing inserts one.
    std::mutex thingsMutex;

  private:
    struct ThingUris {
        std::vector<std::string> tagGroups;
        std::string thingClass;
        std::string properties;
    };
    // What AddThing made each thing from, for reopen.
    std::map<std::string, ThingUris> addedFiles_;

    void shutdown();
    // Selects input on the thing added under that name, else on the main thing,
    // and says which one on standard output.
    Thing::Selector selectInput(const std::string &input);
    template <typename Receiver, typename R>
    void runReader(Receiver *receiver, const std::string &input, const std::string *flowId);
};

namespace edge_detail {

// The sample is not used again: a frame's bytes are moved out of it, not copied.
template <typename R> R decodeSample(Edge::Sample &sample) {
    if constexpr (std::is_same_v<R, TOLVIXO::UniInfo>) {
        return TOLVIXO::UniInfo::Decode(sample);
    } else {
        R record{};
        TOLVIXO::DecodeRecord(std::move(sample.getData()), record);
        return record;
    }
}

void printCaught(const std::exception &e);

// Receivers that take a record with the publisher that sent it get it moved,
// with that publisher; others get callback(record).
template <typename Receiver, typename R, typename = void> struct TakesOrigin : std::false_type {};
template <typename Receiver, typename R>
struct TakesOrigin<Receiver, R,
                   std::void_t<decltype(std::declval<Receiver &>().receive(
                       std::declval<R &&>(), std::declval<const PublisherKey &>()))>> : std::true_type {};

template <typename Receiver, typename R> void deliver(Receiver &receiver, R &&record, const Edge::Sample &sample) {
    if constexpr (TakesOrigin<Receiver, R>::value) {
        receiver.receive(std::move(record), PublisherKey{sample.getSessionId(), sample.getFlowId()});
    } else {
        receiver.callback(record);
    }
}

// Keeps activeReaders raised for as long as a reader body runs, whichever way it leaves.
class ReaderCount {
  public:
    explicit ReaderCount(std::atomic<std::uint8_t> &counter) : counter_(counter) { counter_.fetch_add(3); }
    ~ReaderCount() { counter_.fetch_sub(3); }
    ReaderCount(const ReaderCount &) = delete;
    ReaderCount &operator=(const ReaderCount &) = delete;

  private:
    std::atomic<std::uint8_t> &counter_;
};

} // namespace edge_detail

template <typename Receiver, typename R> void Edge::run_read(Receiver *receiver, const std::string &input) {
    runReader<Receiver, R>(receiver, input, nullptr);
}

template <typename Receiver, typename R>
void Edge::run_read_flow(Receiver *receiver, const std::string &input, const std::string &flowId) {
    runReader<Receiver, R>(receiver, input, &flowId);
}

template <typename Receiver, typename R>
void Edge::runReader(Receiver *receiver, const std::string &input, const std::string *flowId) {
    edge_detail::ReaderCount running(activeReaders);
    Thing::Selector selector;
    try {
        selector = selectInput(input);
        if (flowId) selector.flow(*flowId);
    } catch (const std::exception &e) {
        // Selecting on a thing that is already closed ends this reader only;
        // the element and its other readers carry on.
        edge_detail::printCaught(e);
        return;
    }
    read<Receiver, R>(receiver, std::move(selector));
}

template <typename Receiver, typename R> void Edge::read(Receiver *receiver, Thing::Selector selector) {
    while (!stopRequested.load()) {
        try {
            // The read's one-second timeout is the loop's only pacing: an empty
            // batch just goes round again and sees the stop flag.
            auto samples = selector.read<std::vector<IOT_NVP>>(1000);
            for (auto &sample : samples) {
                R record = edge_detail::decodeSample<R>(sample);
                edge_detail::deliver(*receiver, std::move(record), sample);
            }
        } catch (const std::exception &e) {
            // The rest of the batch is dropped; later batches are not.
            rejectedSamples.fetch_add(1);
            edge_detail::printCaught(e);
        }
    }
}

struct ModelLoader {
    static void addThingOutByProp(std::shared_ptr<Edge> edge, std::vector<std::string> &tagGroupNames);
    static void addThingInByProp(std::shared_ptr<Edge> edge, std::vector<std::string> &tagGroupNames,
                                 ReceiveImage &receiver, std::string flowId);

    // addThingInByProp for any receiver with the record callbacks.
    template <typename Receiver>
    static void addThingsIn(const std::shared_ptr<Edge> &edge, const std::vector<std::string> &tagGroupNames,
                            Receiver &receiver, const std::string &flowId);

  private:
    struct ThingFiles {
        const char *properties;
        const char *thingClass;
        const char *tagGroup;
    };
    enum class Direction { Out, In };
    enum class Group { VideoFrame, DeviceInfo, Classification, DetectionBox, Segmentation };

    // Aborts the process (GLib error level) for a name that is none of the five.
    static Group groupOf(const std::string &name);
    static ThingFiles filesOf(Group group, Direction direction);
    static void addThing(Edge &edge, const std::string &name, Group group, Direction direction);

    template <typename Receiver, typename R>
    static void startReader(Edge &edge, Receiver &receiver, const std::string &name, const std::string &flowId) {
        if (flowId.empty()) {
            edge.readThreads.emplace_back(&Edge::run_read<Receiver, R>, &edge, &receiver, name);
        } else {
            edge.readThreads.emplace_back(&Edge::run_read_flow<Receiver, R>, &edge, &receiver, name, flowId);
        }
    }
};

template <typename Receiver>
void ModelLoader::addThingsIn(const std::shared_ptr<Edge> &edge, const std::vector<std::string> &tagGroupNames,
                              Receiver &receiver, const std::string &flowId) {
    for (const auto &name : tagGroupNames) {
        const Group group = groupOf(name);
        // The frame reader runs on the main thing and is started by the source itself.
        if (group == Group::VideoFrame) continue;
        addThing(*edge, name, group, Direction::In);
        switch (group) {
        case Group::DeviceInfo:
            startReader<Receiver, TOLVIXO::DeviceInfo>(*edge, receiver, name, flowId);
            break;
        case Group::Classification:
            startReader<Receiver, TOLVIXO::Information<TOLVIXO::ClassificationData>>(*edge, receiver, name, flowId);
            break;
        case Group::DetectionBox:
            startReader<Receiver, TOLVIXO::Information<TOLVIXO::DetectionBoxData>>(*edge, receiver, name, flowId);
            break;
        case Group::Segmentation:
            startReader<Receiver, TOLVIXO::SegmentInfo>(*edge, receiver, name, flowId);
            break;
        case Group::VideoFrame:
            break;
        }
    }
}
