// Guards what operators read of the bus session the elements open, and how it
// ends: where the configuration was found and which loading step failed, the
// line a rejected sample leaves, and a shutdown that hangs on readers blocked in
// a read, leaves them running, or misbehaves when repeated.

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helpers/edge_sample_records.h"
#include "modelloader.h"
#include "qxtest/config_root.h"

namespace {

namespace s = edge_samples;
using testing::HasSubstr;
using TOLVIXO::FrameInfo;

std::shared_ptr<Edge> open(bool out, const std::string &flow = "") {
    return out ? Edge::create(s::kConfig, s::kVideoOutProperties, s::kVideoOutClass, {s::kVideoTagGroup}, flow)
               : Edge::create(s::kConfig, s::kVideoInProperties, s::kVideoInClass, {s::kVideoTagGroup}, flow);
}

// Keeps the id of the last frame; readers of the other groups get nothing here.
struct LastFrame {
    std::atomic<std::uint32_t> id{0};
    template <typename R> void callback(const R &record) {
        if constexpr (std::is_same_v<R, FrameInfo>) id = record.frame_id;
    }
};

// The guard only turns a broken build into a failure instead of a hang.
bool waitUntil(const std::function<bool()> &done) {
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!done() && std::chrono::steady_clock::now() < guard)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

} // namespace

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

// A frame reader on the main thing and one reader per result group, as the
// source starts them; with nothing more to read, each sits in a read.
TEST(EdgeSession, RejectedSampleIsReportedAndShutdownWakesBlockedReaders) {
    qxtest::ConfigRoot root;
    root.enter();
    auto reader = open(false);
    auto writer = open(true);
    ASSERT_TRUE(reader && writer);
    LastFrame frames;
    reader->readThreads.emplace_back(&Edge::run_read<LastFrame, FrameInfo>, reader.get(), &frames, "VideoFrameData");
    ModelLoader::addThingsIn(
        reader, {"DeviceInfoData", "VideoFrameData", "ClassificationData", "DetectionBoxData", "SegmentationData"},
        frames, "");
    ASSERT_EQ(reader->readThreads.size(), 5u);
    // Frames written before the writer has matched the reader are not kept.
    EXPECT_TRUE(waitUntil([&, n = 1u]() mutable {
        writer->writeSample("VideoFrameData", s::smallFrame(n++, "warm-up").Encode());
        return frames.id != 0;
    }));
    // The good frame after the bad one arrives once the bad one has been dealt with.
    std::vector<Edge::IOT_NVP> frameIdAsText = s::smallFrame(2, "bad").Encode();
    frameIdAsText.at(1).value().iotv_string("2");
    testing::internal::CaptureStdout();
    writer->writeSample("VideoFrameData", frameIdAsText);
    writer->writeSample("VideoFrameData", s::smallFrame(5000, "good").Encode());
    EXPECT_TRUE(waitUntil([&] { return frames.id == 5000; }));
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("A exception was caught with message IOT_VALUE kind mismatch"));
    ASSERT_TRUE(waitUntil([&] { return reader->activeReaders.load() == 15; }));
    EXPECT_TRUE(reader->deinit());
    EXPECT_TRUE(reader->readThreads.empty());
    EXPECT_EQ(reader->activeReaders.load(), 0);
    // Repeating the sequence, by hand or from the destructor, is harmless.
    EXPECT_TRUE(reader->deinit());
    testing::internal::CaptureStdout();
    reader.reset();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "edge ~Edge() called.\n");
}
