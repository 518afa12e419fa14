// Records published by another process arrive through the session's reader
// threads with every field intact, full-HD frame payloads included.

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "helpers/edge_sample_records.h"
#include "modelloader.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "records_test_helpers.h"
#include "session_recording_receiver.h"

namespace {

namespace s = edge_samples;
using session_test::Received;
using session_test::RecordingReceiver;

const std::string kWriter = std::string(QX_TEST_HELPER_DIR) + "/edge_writer";

class EdgeSessionAcrossProcesses : public ::testing::Test {
  protected:
    void SetUp() override { root.enter(); }

    // Lets the writer stop and checks that it ran to the end on its own.
    void stopWriter(qxtest::ChildProcess &writer) {
        std::ofstream(root.file("stop")) << "seen\n";
        EXPECT_EQ(writer.wait(std::chrono::seconds(60)), 0) << writer.out() << writer.err();
    }

    qxtest::ConfigRoot root;
};

TEST_F(EdgeSessionAcrossProcesses, SeparateRecordsArriveWholeOnTheirOwnReaders) {
    const std::string flow = "cam-flow-1";
    auto edge = Edge::create(s::kConfig, s::kVideoInProperties, s::kVideoInClass, {s::kVideoTagGroup}, "");
    ASSERT_TRUE(edge);
    RecordingReceiver receiver;
    // The frame reader is started the way the source starts it, the others by the loader.
    edge->readThreads.emplace_back(&Edge::run_read_flow<RecordingReceiver, TOLVIXO::FrameInfo>, edge.get(), &receiver,
                                   std::string("VideoFrameData"), flow);
    ModelLoader::addThingsIn(edge, {"DeviceInfoData", "ClassificationData", "DetectionBoxData", "SegmentationData"},
                             receiver, flow);
    ASSERT_EQ(edge->readThreads.size(), 5u);

    qxtest::ChildProcess writer({kWriter, "separate", flow}, root.path());
    const bool all = receiver.waitUntil([](const Received &r) {
        return !r.frames.empty() && !r.devices.empty() && !r.classifications.empty() && !r.detections.empty() &&
               !r.segmentations.empty();
    });
    stopWriter(writer);
    EXPECT_TRUE(edge->deinit());
    ASSERT_TRUE(all) << "writer output:\n" << writer.out() << writer.err();

    const Received got = receiver.snapshot();
    // Full-HD payload included: pairs print its size and hash on a mismatch.
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
    edge->readThreads.emplace_back(&Edge::run_read<RecordingReceiver, TOLVIXO::UniInfo>, edge.get(), &receiver,
                                   std::string("VideoFrameData"));

    qxtest::ChildProcess writer({kWriter, "uni", "pipe-flow"}, root.path());
    const bool arrived = receiver.waitUntil([](const Received &r) { return !r.unis.empty(); });
    stopWriter(writer);
    EXPECT_TRUE(edge->deinit());
    ASSERT_TRUE(arrived) << "writer output:\n" << writer.out() << writer.err();

    EXPECT_EQ(receiver.snapshot().unis.front().Encode(), s::uniAsReceived().Encode());
}

} // namespace
