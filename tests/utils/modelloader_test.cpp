// The bus session on the real bus: opening, things per tag group, where
// samples leave, reader threads, bad samples, flows, records published by
// another process, and shutdown.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helpers/edge_sample_records.h"
#include "marlet/pair_codec.h"
#include "modelloader.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "raw_writer.h"
#include "records_test_helpers.h"
#include "session_recording_receiver.h"

namespace {

namespace s = edge_samples;
namespace marlet = com::quorixtech::marlet;
using com::quorixtech::iot::IOT_NVP;
using com::quorixtech::iot::IOT_VALUE;
using session_test::Received;
using session_test::RecordingReceiver;
using testing::HasSubstr;
using testing::Not;

const std::vector<std::string> kResultGroups = {"DeviceInfoData", "ClassificationData", "DetectionBoxData",
                                                "SegmentationData"};

std::shared_ptr<Edge> openVideoOut(const std::string &contextId = "") {
    return Edge::create(s::kConfig, s::kVideoOutProperties, s::kVideoOutClass, {s::kVideoTagGroup}, contextId);
}

std::shared_ptr<Edge> openVideoIn(const std::string &contextId = "") {
    return Edge::create(s::kConfig, s::kVideoInProperties, s::kVideoInClass, {s::kVideoTagGroup}, contextId);
}

std::set<std::string> thingNames(const Edge &edge) {
    std::set<std::string> names;
    for (const auto &entry : edge.things)
        names.insert(entry.first);
    return names;
}

// Starts a reader on the main thing, as the source does.
template <typename Record = TOLVIXO::FrameInfo>
void startMainReader(Edge &edge, RecordingReceiver &receiver, const std::string &flowId = "") {
    if (flowId.empty()) {
        edge.readThreads.emplace_back(&Edge::run_read<RecordingReceiver, Record>, &edge, &receiver,
                                      std::string("VideoFrameData"));
    } else {
        edge.readThreads.emplace_back(&Edge::run_read_flow<RecordingReceiver, Record>, &edge, &receiver,
                                      std::string("VideoFrameData"), flowId);
    }
}

class EdgeSession : public ::testing::Test {
  protected:
    void SetUp() override { root.enter(); }
    qxtest::ConfigRoot root;
};

// ---- opening ---------------------------------------------------------------

using EdgeSessionOpen = EdgeSession;

TEST_F(EdgeSessionOpen, CreateFindsTheRootAndOpensTheMainThingInItsFlow) {
    testing::internal::CaptureStdout();
    auto edge = openVideoOut("ctx-7");
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(edge);

    EXPECT_THAT(out, HasSubstr("Find Kelpkit configuration files under .\n"));
    EXPECT_EQ(edge->configUri, "file://./config/Marlet.xml");
    EXPECT_EQ(edge->thingPropertiesUri, std::string("file://./") + s::kVideoOutProperties);
    EXPECT_EQ(edge->thingClassUri, std::string("file://./") + s::kVideoOutClass);
    EXPECT_EQ(edge->tagGroupUris, std::vector<std::string>{std::string("file://./") + s::kVideoTagGroup});
    EXPECT_FALSE(edge->thingId.empty());
    EXPECT_EQ(edge->thingId, edge->thing.getId());
    EXPECT_EQ(edge->thing.getContextId(), "ctx-7");
    EXPECT_THAT(out, HasSubstr("[" + edge->thingId + "] Init flow ctx-7 done\n"));
}

TEST_F(EdgeSessionOpen, MissingFilesGiveNoSessionAndAddNoThing) {
    testing::internal::CaptureStderr();
    auto none =
        Edge::create(s::kConfig, "config/NoSuchThingProperties.json", s::kVideoOutClass, {s::kVideoTagGroup}, "");
    const std::string createErr = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(none);
    EXPECT_THAT(createErr, HasSubstr("Can not find all edge configuration files\n"));

    auto edge = openVideoOut();
    ASSERT_TRUE(edge);
    testing::internal::CaptureStderr();
    edge->AddThing("DeviceInfoData", "config/NoSuchThingProperties.json",
                   "definitions/ThingClass/com.vision.data/DeviceInfoThingOutClass.json",
                   {"definitions/TagGroup/com.vision.data/DeviceInfoTagGroup.json"});
    const std::string addErr = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(edge->things.empty());
    EXPECT_THAT(addErr, HasSubstr("Can not find all edge configuration files\n"));
}

TEST(EdgeSessionBrokenFiles, EachBrokenFileIsReportedByItsOwnStep) {
    const std::vector<std::string> messages = {"Load Tag group failed.", "Load Thing Class failed.",
                                               "Load Thing Properties failed."};
    const struct {
        const char *file;
        std::size_t message;
    } rows[] = {
        {s::kVideoTagGroup, 0},
        {s::kVideoOutClass, 1},
        {s::kVideoOutProperties, 2},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file);
        qxtest::ConfigRoot root;
        root.writeFile(row.file, "{ \"broken\": [1, 2,");
        root.enter();
        testing::internal::CaptureStdout();
        // What the bus library makes of a thing built from half its definitions
        // is its own affair; it may refuse by throwing, but must not crash us.
        try {
            auto edge = openVideoOut();
        } catch (const std::exception &) {
        }
        const std::string out = testing::internal::GetCapturedStdout();
        for (std::size_t i = 0; i < messages.size(); ++i) {
            if (i == row.message) {
                EXPECT_THAT(out, HasSubstr(messages[i] + "\n"));
            } else {
                EXPECT_THAT(out, Not(HasSubstr(messages[i])));
            }
        }
    }
}

// ---- things per tag group ----------------------------------------------------

using EdgeSessionModelLoader = EdgeSession;

TEST_F(EdgeSessionModelLoader, EmptyListAndVideoFrameAddNoThingAndNoReader) {
    const std::vector<std::vector<std::string>> lists = {{}, {"VideoFrameData"}, {"VideoFrameData", "VideoFrameData"}};
    for (const auto &names : lists) {
        SCOPED_TRACE(testing::PrintToString(names));
        auto out = openVideoOut();
        auto in = openVideoIn();
        ASSERT_TRUE(out && in);
        std::vector<std::string> list = names;
        ModelLoader::addThingOutByProp(out, list);
        RecordingReceiver receiver;
        ModelLoader::addThingsIn(in, list, receiver, "");
        EXPECT_TRUE(out->things.empty());
        EXPECT_TRUE(in->things.empty());
        EXPECT_TRUE(in->readThreads.empty());
        EXPECT_TRUE(in->deinit());
    }
}

TEST_F(EdgeSessionModelLoader, EachResultGroupGetsItsThingAndInputsTheirReader) {
    auto out = openVideoOut();
    ASSERT_TRUE(out);
    std::vector<std::string> names = kResultGroups;
    names.insert(names.begin() + 1, "VideoFrameData");
    ModelLoader::addThingOutByProp(out, names);
    const std::set<std::string> expected(kResultGroups.begin(), kResultGroups.end());
    EXPECT_EQ(thingNames(*out), expected);

    auto in = openVideoIn();
    ASSERT_TRUE(in);
    RecordingReceiver receiver;
    testing::internal::CaptureStdout();
    ModelLoader::addThingsIn(in, names, receiver, "");
    EXPECT_EQ(in->readThreads.size(), kResultGroups.size());
    EXPECT_EQ(thingNames(*in), expected);
    EXPECT_TRUE(in->deinit());
    const std::string log = testing::internal::GetCapturedStdout();
    for (const auto &name : kResultGroups)
        EXPECT_THAT(log, HasSubstr("] for input " + name + "\n"));
    EXPECT_THAT(log, Not(HasSubstr("main input")));
}

TEST_F(EdgeSessionModelLoader, UnknownNameEndsTheProcessBeforeLaterNames) {
    const std::string helper = std::string(QX_TEST_HELPER_DIR) + "/edge_add_things";
    for (const char *direction : {"out", "in"}) {
        SCOPED_TRACE(direction);
        // Names are matched exactly: the lower-case spelling is unknown.
        qxtest::ChildProcess child({helper, direction, "DeviceInfoData", "videoframedata", "ClassificationData"},
                                   root.path());
        // A fatal GLib error ends the process by a signal: SIGTRAP or SIGABRT depending on the GLib build.
        const int status = child.wait(std::chrono::seconds(60));
        EXPECT_TRUE(status == 128 + SIGTRAP || status == 128 + SIGABRT) << status << child.out() << child.err();
        EXPECT_THAT(child.err(), HasSubstr("No matched tag group name."));
        const std::string out = child.out();
        // The main thing and DeviceInfoData were created, ClassificationData never was.
        std::size_t created = 0;
        for (auto at = out.find("Init flow"); at != std::string::npos; at = out.find("Init flow", at + 1))
            ++created;
        EXPECT_EQ(created, 2u) << out;
        EXPECT_THAT(out, Not(HasSubstr("added ")));
    }
}

// ---- where samples leave -------------------------------------------------------

using EdgeSessionWrite = EdgeSession;

TEST_F(EdgeSessionWrite, SampleLeavesOnTheThingAddedForItsNameElseOnTheMainThing) {
    auto writer = openVideoOut("routing");
    ASSERT_TRUE(writer);
    // Thing ids are seeded from the clock's millisecond: a later millisecond
    // gives the added thing an id of its own, which is what tells the two apart.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::vector<std::string> names = {"DeviceInfoData"};
    ModelLoader::addThingOutByProp(writer, names);
    ASSERT_EQ(writer->things.count("DeviceInfoData"), 1u);
    const std::string deviceThingId = writer->things.at("DeviceInfoData").getId();
    ASSERT_NE(deviceThingId, writer->thingId);

    auto reader = openVideoIn();
    ASSERT_TRUE(reader);
    reader->AddThing("DeviceInfoData", "config/DeviceInfoThingInProperties.json",
                     "definitions/ThingClass/com.vision.data/DeviceInfoThingInClass.json",
                     {"definitions/TagGroup/com.vision.data/DeviceInfoTagGroup.json"});
    auto frames = reader->thing.select("VideoFrameData");
    auto devices = reader->things.at("DeviceInfoData").select("DeviceInfoData");

    // The writer repeats until both inputs have a sample: late matching loses the first ones.
    std::string frameSource, deviceSource;
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while ((frameSource.empty() || deviceSource.empty()) && std::chrono::steady_clock::now() < guard) {
        writer->writeSample("VideoFrameData", s::smallFrame(1, "routing").Encode());
        writer->writeSample("DeviceInfoData", s::device().Encode());
        for (const auto &sample : frames.read<std::vector<IOT_NVP>>(50))
            frameSource = sample.getSourceId();
        for (const auto &sample : devices.read<std::vector<IOT_NVP>>(50))
            deviceSource = sample.getSourceId();
    }
    EXPECT_EQ(frameSource, writer->thingId);
    EXPECT_EQ(deviceSource, deviceThingId);
    EXPECT_TRUE(reader->deinit());
    EXPECT_TRUE(writer->deinit());
}

// ---- reader threads --------------------------------------------------------------

using EdgeSessionReaders = EdgeSession;

TEST_F(EdgeSessionReaders, StartLineNamesTheThingReadFromEvenWhenAlreadyStopped) {
    auto edge = openVideoIn();
    ASSERT_TRUE(edge);
    edge->AddThing("DeviceInfoData", "config/DeviceInfoThingInProperties.json",
                   "definitions/ThingClass/com.vision.data/DeviceInfoThingInClass.json",
                   {"definitions/TagGroup/com.vision.data/DeviceInfoTagGroup.json"});
    edge->stopRequested = true;
    RecordingReceiver receiver;
    const struct {
        std::string input;
        std::string flow;
        std::string target;
    } rows[] = {
        {"VideoFrameData", "", "main input"},
        {"VideoFrameData", "some-flow", "main input"},
        {"DeviceInfoData", "", "input DeviceInfoData"},
        {"DeviceInfoData", "some-flow", "input DeviceInfoData"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.input + " flow '" + row.flow + "'");
        testing::internal::CaptureStdout();
        std::thread reader;
        if (row.flow.empty()) {
            reader =
                std::thread(&Edge::run_read<RecordingReceiver, TOLVIXO::FrameInfo>, edge.get(), &receiver, row.input);
        } else {
            reader = std::thread(&Edge::run_read_flow<RecordingReceiver, TOLVIXO::FrameInfo>, edge.get(), &receiver,
                                 row.input, row.flow);
        }
        std::ostringstream expected;
        expected << "New read thread [" << reader.get_id() << "] for " << row.target << "\n";
        reader.join();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected.str());
        EXPECT_EQ(edge->activeReaders.load(), 0);
    }
    EXPECT_TRUE(receiver.snapshot().frameKeys.empty());
}

TEST_F(EdgeSessionReaders, NarrowedReaderGetsOnlyItsFlowAndAnUnnarrowedOneGetsAll) {
    auto reader = openVideoIn();
    auto writerA = openVideoOut("flow-A");
    auto writerB = openVideoOut("flow-B");
    ASSERT_TRUE(reader && writerA && writerB);
    RecordingReceiver onlyA;
    RecordingReceiver all;
    startMainReader(*reader, onlyA, "flow-A");
    startMainReader(*reader, all);

    // B goes out before A in every round, so a reader that let B through
    // would have some by the time it has several of A.
    const auto enough = [](const Received &r, const char *stream) { return r.framesFrom(stream) >= 5; };
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (std::uint32_t n = 1; std::chrono::steady_clock::now() < guard; ++n) {
        const Received a = onlyA.snapshot();
        const Received b = all.snapshot();
        if (enough(a, "A") && enough(b, "A") && enough(b, "B")) break;
        writerB->writeSample("VideoFrameData", s::smallFrame(n, "B").Encode());
        writerA->writeSample("VideoFrameData", s::smallFrame(n, "A").Encode());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(reader->deinit());
    const Received a = onlyA.snapshot();
    const Received b = all.snapshot();
    EXPECT_GE(a.framesFrom("A"), 5u);
    EXPECT_EQ(a.frameStreams(), (std::set<std::string>{"A"}));
    EXPECT_EQ(b.frameStreams(), (std::set<std::string>{"A", "B"}));
}

// A payload nested one level deeper than any reader accepts.
std::vector<std::uint8_t> tooDeepPayload() {
    std::vector<IOT_NVP> inner;
    for (std::size_t depth = 0; depth < marlet::codec::kMaxDepth; ++depth) {
        IOT_VALUE v;
        v.iotv_nvp_seq(inner);
        inner = {IOT_NVP("", v)};
    }
    std::vector<std::uint8_t> bytes = marlet::codec::encode(inner);
    // One more level than the encoder would write: count 1, empty name, nested-sequence kind.
    const std::uint8_t wrap[] = {0x01, 0x00, static_cast<std::uint8_t>(com::quorixtech::iot::IotKind::iotv_nvp_seq)};
    bytes.insert(bytes.begin() + 2, std::begin(wrap), std::end(wrap));
    return bytes;
}

TEST_F(EdgeSessionReaders, BadSampleIsReportedAndTheNextGoodOneStillArrives) {
    auto reader = openVideoIn();
    auto writer = openVideoOut("bad-input");
    ASSERT_TRUE(reader && writer);
    RecordingReceiver receiver;
    receiver.refuseFrame(7);
    startMainReader(*reader, receiver);

    // The raw writer follows the bus library's naming: the tag group's topic
    // with '/' for '.', a flow as partition "flow.<id>". Should that change, it
    // finds no reader and the test says so.
    marlet::JSonTagGroupRegistry groups;
    groups.registerTagGroupsFromURI(std::string("file://") + root.file(s::kVideoTagGroup));
    ASSERT_FALSE(groups.tagGroups().empty());
    std::string topic = groups.tagGroups().front().topic;
    std::replace(topic.begin(), topic.end(), '.', '/');
    const marlettest::RawWriter raw(root, topic.c_str(), "flow.raw");

    // Both writers matched before anything bad is sent: nothing sent later is lost.
    ASSERT_TRUE(raw.waitForReader(600)) << "no reader matched the raw writer";
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!receiver.snapshot().hasFrame(1) && std::chrono::steady_clock::now() < guard) {
        writer->writeSample("VideoFrameData", s::smallFrame(1, "warm-up").Encode());
        receiver.waitUntil([](const Received &r) { return r.hasFrame(1); }, std::chrono::seconds(1));
    }
    ASSERT_TRUE(receiver.snapshot().hasFrame(1));

    std::vector<IOT_NVP> frameIdAsText = s::smallFrame(2, "bad").Encode();
    for (auto &pair : frameIdAsText) {
        if (pair.name() == "frame_id") pair.value().iotv_string("2");
    }
    std::vector<std::uint8_t> truncated = marlet::codec::encode(s::smallFrame(3, "bad").Encode());
    truncated.resize(truncated.size() - 3);

    // Each bad sample is followed by a good one from the same writer, so the
    // good one's arrival means the bad one has been dealt with. Pairs go out
    // through the session's writer, bytes through the raw one.
    const struct {
        const char *what;
        std::vector<IOT_NVP> pairs;
        std::vector<std::uint8_t> bytes;
        const char *reported;
    } rows[] = {
        {"value of the wrong kind", frameIdAsText, {}, "kind mismatch"},
        {"consumer that throws", s::smallFrame(7, "refused").Encode(), {}, "receiver refused frame 7"},
        {"truncated payload", {}, truncated, "truncated"},
        {"garbage payload", {}, {0xde, 0xad, 0xbe, 0xef, 0x00, 0x11}, "magic"},
        {"payload nested too deep", {}, tooDeepPayload(), "deeper"},
    };
    std::uint32_t good = 100;
    std::uint64_t rawSequence = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const auto goodPairs = s::smallFrame(++good, "good").Encode();
        testing::internal::CaptureStdout();
        if (row.bytes.empty()) {
            writer->writeSample("VideoFrameData", row.pairs);
            writer->writeSample("VideoFrameData", goodPairs);
        } else {
            raw.write(row.bytes, "raw", "raw", ++rawSequence);
            raw.write(marlet::codec::encode(goodPairs), "raw", "raw", ++rawSequence);
        }
        const bool arrived = receiver.waitUntil([good](const Received &r) { return r.hasFrame(good); });
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(arrived);
        const auto at = out.find("A exception was caught with message ");
        ASSERT_NE(at, std::string::npos) << out;
        EXPECT_THAT(out.substr(at, out.find('\n', at) - at), HasSubstr(row.reported));
    }
    EXPECT_TRUE(reader->deinit());
    EXPECT_FALSE(receiver.snapshot().hasFrame(2));
}

// ---- records from another process ------------------------------------------------

// Records arrive through the session's reader threads with every field intact,
// full-HD frame payloads included (pairs print their size and hash on a mismatch).
class EdgeSessionAcrossProcesses : public EdgeSession {
  protected:
    // Lets the writer stop and checks that it ran to the end on its own.
    void stopWriter(qxtest::ChildProcess &writer) {
        std::ofstream(root.file("stop")) << "seen\n";
        EXPECT_EQ(writer.wait(std::chrono::seconds(60)), 0) << writer.out() << writer.err();
    }

    const std::string writerPath = std::string(QX_TEST_HELPER_DIR) + "/edge_writer";
};

TEST_F(EdgeSessionAcrossProcesses, SeparateRecordsArriveWholeOnTheirOwnReaders) {
    const std::string flow = "cam-flow-1";
    auto edge = openVideoIn();
    ASSERT_TRUE(edge);
    RecordingReceiver receiver;
    startMainReader(*edge, receiver, flow);
    ModelLoader::addThingsIn(edge, kResultGroups, receiver, flow);
    ASSERT_EQ(edge->readThreads.size(), 5u);

    qxtest::ChildProcess writer({writerPath, "separate", flow}, root.path());
    const bool all = receiver.waitUntil([](const Received &r) {
        return !r.frames.empty() && !r.devices.empty() && !r.classifications.empty() && !r.detections.empty() &&
               !r.segmentations.empty();
    });
    stopWriter(writer);
    EXPECT_TRUE(edge->deinit());
    ASSERT_TRUE(all) << "writer output:\n" << writer.out() << writer.err();

    const Received got = receiver.snapshot();
    EXPECT_EQ(got.frames.front().Encode(), s::frame(17).Encode());
    EXPECT_EQ(got.devices.front().Encode(), s::device().Encode());
    EXPECT_EQ(got.classifications.front().Encode(), s::classification().Encode());
    EXPECT_EQ(got.detections.front().Encode(), s::detection().Encode());
    EXPECT_EQ(got.segmentations.front().Encode(), s::segmentation().Encode());
}

TEST_F(EdgeSessionAcrossProcesses, CombinedRecordArrivesWithFramesResultsAndDevices) {
    auto edge = Edge::create(s::kConfig, s::kVideoInProperties, s::kVideoInClass, {s::kPipeTagGroup}, "");
    ASSERT_TRUE(edge);
    RecordingReceiver receiver;
    startMainReader<TOLVIXO::UniInfo>(*edge, receiver);

    qxtest::ChildProcess writer({writerPath, "uni", "pipe-flow"}, root.path());
    const bool arrived = receiver.waitUntil([](const Received &r) { return !r.unis.empty(); });
    stopWriter(writer);
    EXPECT_TRUE(edge->deinit());
    ASSERT_TRUE(arrived) << "writer output:\n" << writer.out() << writer.err();
    EXPECT_EQ(receiver.snapshot().unis.front().Encode(), s::uniAsReceived().Encode());
}

// ---- shutdown ----------------------------------------------------------------------

using EdgeSessionShutdown = EdgeSession;

TEST_F(EdgeSessionShutdown, DeinitStopsReadersBlockedInAReadAndJoinsThem) {
    auto edge = openVideoIn();
    ASSERT_TRUE(edge);
    RecordingReceiver receiver;
    startMainReader(*edge, receiver);
    ModelLoader::addThingsIn(edge, kResultGroups, receiver, "some-flow");
    ASSERT_EQ(edge->readThreads.size(), 5u);
    // Nothing is published: every reader sits in a read once it has started.
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (edge->activeReaders.load() != 15 && std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(edge->activeReaders.load(), 15);

    EXPECT_TRUE(edge->deinit());
    EXPECT_TRUE(edge->readThreads.empty());
    EXPECT_EQ(edge->activeReaders.load(), 0);
    EXPECT_TRUE(edge->stopRequested.load());

    // Repeating the sequence, by hand or from the destructor, is harmless.
    EXPECT_TRUE(edge->deinit());
    testing::internal::CaptureStdout();
    edge.reset();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "edge ~Edge() called.\n");
}

} // namespace
