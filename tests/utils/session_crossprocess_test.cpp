// Records published by another process arrive through the session's reader
// threads with every field intact, full-HD frame payloads included.

#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "helpers/edge_sample_records.h"
#include "modelloader.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "session_recording_receiver.h"

namespace {

namespace s = edge_samples;
using session_test::Received;
using session_test::RecordingReceiver;

const std::string kWriter = std::string(QX_TEST_HELPER_DIR) + "/edge_writer";

// A readable line per pair of a record's encoding: every field, floats bit
// for bit, so a mismatch names the field that broke.
void describe(const std::vector<com::quorixtech::iot::IOT_NVP> &pairs, const std::string &prefix, std::ostream &out) {
    using com::quorixtech::iot::IotKind;
    for (const auto &pair : pairs) {
        const auto &v = pair.value();
        out << prefix << pair.name() << " " << com::quorixtech::iot::kindName(v.kind()) << " ";
        switch (v.kind()) {
        case IotKind::iotv_int32:
            out << v.iotv_int32();
            break;
        case IotKind::iotv_uint32:
            out << v.iotv_uint32();
            break;
        case IotKind::iotv_int64:
            out << v.iotv_int64();
            break;
        case IotKind::iotv_float32: {
            const float f = v.iotv_float32();
            std::uint32_t bits = 0;
            std::memcpy(&bits, &f, sizeof bits);
            out << f << " (0x" << std::hex << bits << std::dec << ")";
            break;
        }
        case IotKind::iotv_string:
            out << '"' << v.iotv_string() << '"';
            break;
        case IotKind::iotv_byte_seq: {
            const auto &bytes = v.iotv_byte_seq();
            out << bytes.size() << " bytes, hash " << std::hash<std::string>{}(std::string(bytes.begin(), bytes.end()));
            break;
        }
        case IotKind::iotv_nvp_seq:
            out << v.iotv_nvp_seq().size() << " entries\n";
            describe(v.iotv_nvp_seq(), prefix + "  ", out);
            continue;
        case IotKind::none:
            break;
        }
        out << '\n';
    }
}

template <typename R> std::string wire(const R &record) {
    std::ostringstream text;
    describe(record.Encode(), "", text);
    return text.str();
}

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
    const TOLVIXO::FrameInfo &frame = got.frames.front();
    EXPECT_EQ(frame.data.size(), static_cast<std::size_t>(s::kWidth) * s::kHeight * 3);
    EXPECT_TRUE(frame.data == s::frame(17).data) << "frame payload differs";
    EXPECT_EQ(wire(frame), wire(s::frame(17)));
    EXPECT_EQ(wire(got.devices.front()), wire(s::device()));
    EXPECT_EQ(wire(got.classifications.front()), wire(s::classification()));
    EXPECT_EQ(wire(got.detections.front()), wire(s::detection()));
    EXPECT_EQ(wire(got.segmentations.front()), wire(s::segmentation()));
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

    const TOLVIXO::UniInfo got = receiver.snapshot().unis.front();
    const TOLVIXO::UniInfo expected = s::uniAsReceived();
    ASSERT_EQ(got.videoList.size(), 2u);
    ASSERT_EQ(got.deviceList.size(), 2u);
    EXPECT_TRUE(got.videoList[0].data == expected.videoList[0].data) << "frame payload differs";
    ASSERT_EQ(got.videoList[0].detectionResult.size(), 2u);
    EXPECT_EQ(got.videoList[0].detectionResult[0].engine_id, "");
    EXPECT_EQ(wire(got), wire(expected));
}

} // namespace
