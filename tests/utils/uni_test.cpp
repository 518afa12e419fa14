// The combined pipe record: wire layout, round trips and its deliberate
// engine-id mismatch for boxes.

#include <gtest/gtest.h>

#include "helpers/edge_sample_records.h"
#include "records_test_helpers.h"
#include "uni_information.h"

using namespace rectest;
using namespace TOLVIXO;

namespace {

namespace es = edge_samples;

const Wire kUniWire = {{"VideoList", SEQ}, {"DeviceList", SEQ}};
const Wire kUniFrameWire =
    kFrameWire + Wire{{"ClassificationResult", SEQ}, {"DetectionResult", SEQ}, {"SegmentationResult", SEQ}};
const Wire kUniClassWire = {{"engine_id", S}, {"index", U32}, {"output", S}, {"label", S}, {"probability", F32}};
// "engin_id" on purpose: it is what peers have always written.
const Wire kUniBoxWire = {{"engin_id", S},    {"obj_id", U32},      {"obj_label", S}, {"class_id", U32},
                          {"class_label", S}, {"x1", F32},          {"y1", F32},      {"x2", F32},
                          {"y2", F32},        {"probability", F32}, {"meta", S}};

IXO_DeviceInfoData sampleDevice() {
    return {"cam", "aa", "127.0.0.3", 8554, "rtsp://127.0.0.3/", "Quorix", "m", "s", "f", "d", "on", "cam", "rtsp"};
}

// A sample as the reader thread gets it from the bus.
com::quorixtech::marlet::DataSample<Pairs> asSample(Pairs pairs) {
    return com::quorixtech::marlet::DataSample<Pairs>(std::move(pairs), "thing", "flow", "IXOPipe", 1, 0);
}

} // namespace

// Two frames (the first with every kind of result) and two devices.
TEST(RecordsUniWire, EncoderWritesTheAgreedLayout) {
    const auto pairs = es::uni().Encode();
    expectWire(pairs, kUniWire, "UniInfo");
    expectListOf(pairs[0], 2, kUniFrameWire, "VideoList");
    expectListOf(pairs[1], 2, kDeviceWire, "DeviceList");

    const auto frame = pairs[0].value().iotv_nvp_seq()[0].value().iotv_nvp_seq();
    expectListOf(frame[11], 1, kUniClassWire, "ClassificationResult");
    expectListOf(frame[12], 2, kUniBoxWire, "DetectionResult");
    expectListOf(frame[13], 1, kMaskWire, "SegmentationResult");
    EXPECT_EQ(pairNamed(frame[12].value().iotv_nvp_seq()[0].value().iotv_nvp_seq(), "engin_id").value().iotv_string(),
              "detector-2");
}

TEST(RecordsUniRoundTrip, EverythingButTheBoxEngineIdSurvives) {
    // Boxes come back without their engine id (written as "engin_id", read as "engine_id").
    EXPECT_EQ(UniInfo::Decode(asSample(es::uni().Encode())).Encode(), es::uniAsReceived().Encode());

    // Every device field set to a value of its own, so a field decoded into its neighbour shows.
    UniInfo devices;
    devices.deviceList = {sampleDevice()};
    EXPECT_EQ(UniInfo::Decode(asSample(devices.Encode())).Encode(), devices.Encode());
}

TEST(RecordsUniDecode, BoxFromAPeerThatWritesEngineIdKeepsIt) {
    const Pairs box = {str("engine_id", "peer-engine"), u32("obj_id", 3), f32("x2", 1.5f)};
    const Pairs frame = {u32("frame_id", 5), seq("DetectionResult", {seq("", box)})};
    const UniInfo u = UniInfo::Decode(asSample({seq("VideoList", {seq("", frame)})}));
    ASSERT_EQ(u.videoList.size(), 1u);
    ASSERT_EQ(u.videoList[0].detectionResult.size(), 1u);
    EXPECT_EQ(u.videoList[0].detectionResult[0].engine_id, "peer-engine");
    EXPECT_EQ(u.videoList[0].detectionResult[0].obj_id, 3u);
    EXPECT_EQ(u.videoList[0].detectionResult[0].x2, 1.5f);
}

TEST(RecordsUniDecode, ListShapes) {
    struct Case {
        const char *what;
        Pairs pairs;
        std::size_t frames;
        std::size_t devices;
    };
    UniInfo oneFrame;
    oneFrame.videoList.push_back(es::uni().videoList[1]);
    const std::vector<Case> cases = {
        {"one frame, no device", oneFrame.Encode(), 1, 0},
        {"empty record", UniInfo().Encode(), 0, 0},
        {"neither list name", {str("videolist", "x"), u32("Devices", 1)}, 0, 0},
        {"devices only", {seq("DeviceList", {seq("", sampleDevice().Encode()), seq("", {})})}, 0, 2},
    };
    for (const auto &c : cases) {
        const UniInfo u = UniInfo::Decode(asSample(c.pairs));
        EXPECT_EQ(u.videoList.size(), c.frames) << c.what;
        EXPECT_EQ(u.deviceList.size(), c.devices) << c.what;
    }
    EXPECT_TRUE(oneFrame.Encode()[1].value().iotv_nvp_seq().empty());
}

TEST(RecordsUniDecode, WrongKindsThrow) {
    using com::quorixtech::iot::IotKindError;
    const std::vector<std::pair<const char *, Pairs>> cases = {
        {"VideoList as string", {str("VideoList", "x")}},
        {"frame entry as bytes", {seq("VideoList", {bytes("", {1})})}},
        {"classification index as int32",
         {seq("VideoList", {seq("", {seq("ClassificationResult", {seq("", {i32("index", 1)})})})})}},
        {"box obj_id as int32", {seq("VideoList", {seq("", {seq("DetectionResult", {seq("", {i32("obj_id", 1)})})})})}},
        {"device port as uint32", {seq("DeviceList", {seq("", {u32("port", 1)})})}},
    };
    for (const auto &c : cases)
        EXPECT_THROW(UniInfo::Decode(asSample(c.second)), IotKindError) << c.first;
}
