// Guards the bus session the elements open, on the real bus: configuration found in
// the wrong place or a failed step not reported, a reader narrowed to one flow that
// lets others through, a bad sample that stops a reader or hides the next good one,
// a shutdown that hangs on blocked readers, and records of another process lost.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <typeinfo>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helpers/edge_sample_records.h"
#include "modelloader.h"
#include "pair_text.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"

namespace {

namespace s = edge_samples;
using com::quorixtech::iot::IOT_NVP;
using testing::HasSubstr;
using namespace TOLVIXO;

// What the reader threads delivered: the first record of each type, encoded
// (full frames are large), and the stream id of every frame.
struct Received {
    std::map<std::string, std::vector<IOT_NVP>> first;
    std::vector<std::string> frameStreams;
    template <typename R> const std::vector<IOT_NVP> &of() const { return first.at(typeid(R).name()); }
    long framesFrom(const std::string &stream) const {
        return std::count(frameStreams.begin(), frameStreams.end(), stream);
    }
};

// Readers call it concurrently, so everything is under one mutex, and tests
// wait on a condition instead of sleeping.
class RecordingReceiver {
  public:
    template <typename R> void callback(const R &record) {
        std::lock_guard<std::mutex> lock(mutex_);
        if constexpr (std::is_same_v<R, FrameInfo>) {
            // As a failing consumer would.
            if (record.stream_id == "refused") throw std::runtime_error("receiver refused the frame");
            got_.frameStreams.push_back(record.stream_id);
        }
        const auto [entry, isFirst] = got_.first.try_emplace(typeid(R).name());
        if (isFirst) entry->second = record.Encode();
        changed_.notify_all();
    }
    // False if done still does not hold after the guard, which only exists so
    // that a broken build fails instead of hanging.
    bool waitUntil(const std::function<bool(const Received &)> &done) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return done(got_); });
    }
    Received snapshot() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Received got_;
};

std::shared_ptr<Edge> open(bool out, const std::string &flow = "") {
    return out ? Edge::create(s::kConfig, s::kVideoOutProperties, s::kVideoOutClass, {s::kVideoTagGroup}, flow)
               : Edge::create(s::kConfig, s::kVideoInProperties, s::kVideoInClass, {s::kVideoTagGroup}, flow);
}

// A reader on the main thing, as the source starts it.
void startMainReader(Edge &edge, RecordingReceiver &receiver, std::string flow = "") {
    if (flow.empty())
        edge.readThreads.emplace_back(&Edge::run_read<RecordingReceiver, FrameInfo>, &edge, &receiver,
                                      "VideoFrameData");
    else
        edge.readThreads.emplace_back(&Edge::run_read_flow<RecordingReceiver, FrameInfo>, &edge, &receiver,
                                      "VideoFrameData", flow);
}

// Every tag group the elements know; the video group travels on the main thing.
const std::vector<std::string> kTagGroups = {"DeviceInfoData", "VideoFrameData", "ClassificationData",
                                             "DetectionBoxData", "SegmentationData"};

class EdgeSession : public ::testing::Test {
  protected:
    void SetUp() override { root.enter(); }
    qxtest::ConfigRoot root;
};

// Each step of opening reports on its own; the texts are what operators grep for.
TEST(EdgeSessionOpen, ReportsWhereTheFilesWereFoundAndWhichStepFailed) {
    const char *const broken = "{ \"broken\": [1, 2,";
    const struct {
        const char *file;
        const char *content; // nullptr: the file is removed
        std::string expected;
    } rows[] = {
        {nullptr, nullptr, "Find Kelpkit configuration files under .\n"},
        {s::kVideoOutProperties, nullptr, "Can not find all edge configuration files\n"},
        {s::kVideoTagGroup, broken, "Load Tag group failed.\n"},
        {s::kVideoOutClass, broken, "Load Thing Class failed.\n"},
        {s::kVideoOutProperties, broken, "Load Thing Properties failed.\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.expected);
        qxtest::ConfigRoot root;
        if (row.file && row.content) root.writeFile(row.file, row.content);
        if (row.file && !row.content) root.removeFile(row.file);
        root.enter();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::shared_ptr<Edge> edge;
        // What the bus library makes of a thing built from half its definitions
        // is its own affair; it may refuse by throwing, but must not crash us.
        try {
            edge = open(true, "ctx-7");
        } catch (const std::exception &) {
        }
        const std::string log = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
        EXPECT_THAT(log, HasSubstr(row.expected));
        // Only the broken file's own step fails.
        EXPECT_EQ(log.find("failed.") != std::string::npos, row.content != nullptr) << log;
        EXPECT_EQ(log.find("failed."), log.rfind("failed.")) << log;
        if (row.file && !row.content) EXPECT_FALSE(edge);
        if (row.file) continue;
        ASSERT_TRUE(edge);
        EXPECT_THAT(log, HasSubstr("[" + edge->thingId + "] Init flow ctx-7 done\n"));
    }
}

// A reader of the main thing in flow A, one in every flow, and one per result
// group (a thing each); writers in flows A and B.
TEST_F(EdgeSession, ReadersKeepToTheirFlowOutliveBadSamplesAndStopTogether) {
    auto reader = open(false);
    auto writerA = open(true, "flow-A");
    auto writerB = open(true, "flow-B");
    ASSERT_TRUE(reader && writerA && writerB);
    RecordingReceiver onlyA;
    RecordingReceiver all;
    startMainReader(*reader, onlyA, "flow-A");
    startMainReader(*reader, all);
    ModelLoader::addThingsIn(reader, kTagGroups, all, "");
    ASSERT_EQ(reader->readThreads.size(), 6u);
    // B goes out before A in every round, so a narrowed reader that let B
    // through would have some by the time both readers have several of A.
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (std::uint32_t n = 1000; std::chrono::steady_clock::now() < guard; ++n) {
        const Received a = onlyA.snapshot();
        const Received b = all.snapshot();
        if (a.framesFrom("A") >= 5 && b.framesFrom("A") >= 5 && b.framesFrom("B") >= 5) break;
        writerB->writeSample("VideoFrameData", s::smallFrame(n, "B").Encode());
        writerA->writeSample("VideoFrameData", s::smallFrame(n, "A").Encode());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // Each bad sample is followed by a good one from the same writer, so the
    // good one's arrival means the bad one has been dealt with.
    std::vector<IOT_NVP> frameIdAsText = s::smallFrame(2, "bad").Encode();
    frameIdAsText.at(1).value().iotv_string("2");
    const std::pair<std::vector<IOT_NVP>, const char *> rows[] = {
        {frameIdAsText, "IOT_VALUE kind mismatch"},
        {s::smallFrame(7, "refused").Encode(), "receiver refused the frame"},
    };
    long good = 0;
    for (const auto &[bad, reported] : rows) {
        testing::internal::CaptureStdout();
        writerB->writeSample("VideoFrameData", bad);
        writerB->writeSample("VideoFrameData", s::smallFrame(++good, "good").Encode());
        EXPECT_TRUE(all.waitUntil([good](const Received &r) { return r.framesFrom("good") == good; })) << reported;
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    HasSubstr(std::string("A exception was caught with message ") + reported));
    }
    // Nothing more is published: every reader sits in a read, and shutdown wakes them.
    while (reader->activeReaders.load() != 18 && std::chrono::steady_clock::now() < guard)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(reader->activeReaders.load(), 18);
    EXPECT_TRUE(reader->deinit());
    EXPECT_TRUE(reader->readThreads.empty());
    EXPECT_EQ(reader->activeReaders.load(), 0);
    const Received a = onlyA.snapshot();
    const Received b = all.snapshot();
    EXPECT_EQ(a.framesFrom("A"), static_cast<long>(a.frameStreams.size()));
    EXPECT_EQ(b.framesFrom("bad") + b.framesFrom("refused"), 0);
    // Repeating the sequence, by hand or from the destructor, is harmless.
    EXPECT_TRUE(reader->deinit());
    testing::internal::CaptureStdout();
    reader.reset();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "edge ~Edge() called.\n");
}

// Records published by another process arrive through the session's reader
// threads, each on its own, with every field intact (full-HD frame included).
TEST_F(EdgeSession, RecordsFromAnotherProcessArriveWhole) {
    auto edge = open(false);
    ASSERT_TRUE(edge);
    RecordingReceiver receiver;
    startMainReader(*edge, receiver, "cam-flow-1");
    ModelLoader::addThingsIn(edge, kTagGroups, receiver, "cam-flow-1");
    // The writer repeats its records until told to stop, then must end on its own.
    qxtest::ChildProcess writer({std::string(QX_TEST_HELPER_DIR) + "/edge_writer", "cam-flow-1"}, root.path());
    const bool arrived = receiver.waitUntil([](const Received &r) { return r.first.size() == 5; });
    std::ofstream(root.file("stop")) << "seen\n";
    EXPECT_EQ(writer.wait(std::chrono::seconds(60)), 0) << writer.out() << writer.err();
    EXPECT_TRUE(edge->deinit());
    ASSERT_TRUE(arrived);
    const Received got = receiver.snapshot();
    EXPECT_EQ(got.of<FrameInfo>(), s::frame(17).Encode());
    EXPECT_EQ(got.of<DeviceInfo>(), s::device().Encode());
    EXPECT_EQ(got.of<Information<ClassificationData>>(), s::classification().Encode());
    EXPECT_EQ(got.of<Information<DetectionBoxData>>(), s::detection().Encode());
    EXPECT_EQ(got.of<SegmentInfo>(), s::segmentation().Encode());
}

} // namespace
