// The combined pipe record: wire layout, round trips and its deliberate
// engine-id mismatch for boxes.

#include <gtest/gtest.h>

#include "records_test_helpers.h"
#include "uni_information.h"

using namespace rectest;
using namespace TOLVIXO;

namespace {

const Wire kUniWire = {{"VideoList", SEQ}, {"DeviceList", SEQ}};
const Wire kUniFrameWire =
    kFrameWire + Wire{{"ClassificationResult", SEQ}, {"DetectionResult", SEQ}, {"SegmentationResult", SEQ}};
const Wire kUniClassWire = {{"engine_id", S}, {"index", U32}, {"output", S}, {"label", S}, {"probability", F32}};
// "engin_id" on purpose: it is what peers have always written.
const Wire kUniBoxWire = {{"engin_id", S},    {"obj_id", U32},      {"obj_label", S}, {"class_id", U32},
                          {"class_label", S}, {"x1", F32},          {"y1", F32},      {"x2", F32},
                          {"y2", F32},        {"probability", F32}, {"meta", S}};

IXO_VideoFrameData sampleFrame(std::uint32_t id) {
    IXO_VideoFrameData f;
    f.stream_id = "cam";
    f.frame_id = id;
    f.timestamp = 20240102030405006LL;
    f.data = {1, 2, 3, 4, 5, 6};
    f.width = 2;
    f.height = 1;
    f.channels = 3;
    f.size = 6;
    f.format = "com.vision.models.PIXEL_FORMAT_BGR8";
    f.compression = "com.vision.models.COMPRESSION_KIND_NONE";
    f.framerate = 25.0f;
    f.classificationResult.push_back({"eng-c", 4294967295u, "out", "car", 0.5f});
    f.detectionResult.push_back({"eng-d", 1, 2, "person", "human", 1.0f, 2.0f, 3.0f, 4.0f, 0.9f, "m1"});
    f.detectionResult.push_back({"eng-d", 3, 4, "dog", "animal", 5.0f, 6.0f, 7.0f, 8.0f, 0.1f, "m2"});
    f.segmentationResult.push_back({7, 1, 10, 10, 2, 1, 255, "road", 0.25f, {9, 9}});
    return f;
}

IXO_DeviceInfoData sampleDevice() {
    return {"cam", "aa", "127.0.0.3", 8554, "rtsp://127.0.0.3/", "Quorix", "m", "s", "f", "d", "on", "cam", "rtsp"};
}

UniInfo sampleUni() {
    UniInfo u;
    u.videoList.push_back(sampleFrame(1));
    u.videoList.push_back(sampleFrame(2));
    u.deviceList.push_back(sampleDevice());
    return u;
}

// A sample as the reader thread gets it from the bus.
com::quorixtech::marlet::DataSample<Pairs> asSample(Pairs pairs) {
    return com::quorixtech::marlet::DataSample<Pairs>(std::move(pairs), "thing", "flow", "IXOPipe", 1, 0);
}

} // namespace

TEST(RecordsUniWire, EncoderWritesTheAgreedLayout) {
    const auto pairs = sampleUni().Encode();
    expectWire(pairs, kUniWire, "UniInfo");
    expectListOf(pairs[0], 2, kUniFrameWire, "VideoList");
    expectListOf(pairs[1], 1, kDeviceWire, "DeviceList");

    const auto frame = pairs[0].value().iotv_nvp_seq()[0].value().iotv_nvp_seq();
    expectListOf(frame[11], 1, kUniClassWire, "ClassificationResult");
    expectListOf(frame[12], 2, kUniBoxWire, "DetectionResult");
    expectListOf(frame[13], 1, kMaskWire, "SegmentationResult");
    EXPECT_EQ(pairNamed(frame[12].value().iotv_nvp_seq()[0].value().iotv_nvp_seq(), "engin_id").value().iotv_string(),
              "eng-d");
}

TEST(RecordsUniRoundTrip, EverythingButTheBoxEngineIdSurvives) {
    const UniInfo back = UniInfo::Decode(asSample(sampleUni().Encode()));
    // Boxes come back without their engine id (written as "engin_id", read
    // as "engine_id"); with it cleared on the original, both encode the same.
    UniInfo expected = sampleUni();
    for (auto &f : expected.videoList)
        for (auto &b : f.detectionResult)
            b.engine_id.clear();
    EXPECT_EQ(back.Encode(), expected.Encode());
}

TEST(RecordsUniDecode, BoxFromAPeerThatWritesEngineIdKeepsIt) {
    const Pairs box = {pairStr("engine_id", "peer-engine"), pairU32("obj_id", 3), pairF32("x2", 1.5f)};
    const Pairs frame = {pairU32("frame_id", 5), pairSeq("DetectionResult", {pairSeq("", box)})};
    const UniInfo u = UniInfo::Decode(asSample({pairSeq("VideoList", {pairSeq("", frame)})}));
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
    oneFrame.videoList.push_back(sampleFrame(9));
    const std::vector<Case> cases = {
        {"one frame, no device", oneFrame.Encode(), 1, 0},
        {"empty record", UniInfo().Encode(), 0, 0},
        {"neither list name", {pairStr("videolist", "x"), pairU32("Devices", 1)}, 0, 0},
        {"devices only", {pairSeq("DeviceList", {pairSeq("", sampleDevice().Encode()), pairSeq("", {})})}, 0, 2},
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
        {"VideoList as string", {pairStr("VideoList", "x")}},
        {"frame entry as bytes", {pairSeq("VideoList", {pairBytes("", {1})})}},
        {"classification index as int32",
         {pairSeq("VideoList",
                  {pairSeq("", {pairSeq("ClassificationResult", {pairSeq("", {pairI32("index", 1)})})})})}},
        {"box obj_id as int32",
         {pairSeq("VideoList", {pairSeq("", {pairSeq("DetectionResult", {pairSeq("", {pairI32("obj_id", 1)})})})})}},
        {"device port as uint32", {pairSeq("DeviceList", {pairSeq("", {pairU32("port", 1)})})}},
    };
    for (const auto &c : cases)
        EXPECT_THROW(UniInfo::Decode(asSample(c.second)), IotKindError) << c.first;
}
