// The five separate bus records: wire tables, round trips, decoding rules,
// text dumps and FrameInfo::Copy.

#include <functional>

#include <gtest/gtest.h>

#include "frame_information.h"
#include "records_test_helpers.h"

using namespace rectest;
using TOLVIXO::ClassificationData;
using TOLVIXO::DecodeRecord;
using TOLVIXO::DetectionBoxData;
using TOLVIXO::DeviceInfo;
using TOLVIXO::FrameInfo;
using TOLVIXO::Information;
using TOLVIXO::SegmentationData;
using TOLVIXO::SegmentInfo;

namespace {

constexpr auto S = IotKind::iotv_string;
constexpr auto U32 = IotKind::iotv_uint32;
constexpr auto I32 = IotKind::iotv_int32;
constexpr auto I64 = IotKind::iotv_int64;
constexpr auto F32 = IotKind::iotv_float32;
constexpr auto BYTES = IotKind::iotv_byte_seq;
constexpr auto SEQ = IotKind::iotv_nvp_seq;

// Wire tables as peers know them; written out here, not taken from the encoders.
const std::vector<WireField> kFrameWire = {{"stream_id", S}, {"frame_id", U32},  {"timestamp", I64}, {"data", BYTES},
                                           {"width", U32},   {"height", U32},    {"channels", U32},  {"size", U32},
                                           {"format", S},    {"compression", S}, {"framerate", F32}};
const std::vector<WireField> kDeviceWire = {{"stream_id", S},  {"mac_address", S},  {"ip_address", S}, {"port", I32},
                                            {"uri", S},        {"manufacturer", S}, {"model", S},      {"serial", S},
                                            {"fw_version", S}, {"dev_id", S},       {"status", S},     {"kind", S},
                                            {"protocol", S}};
const std::vector<WireField> kResultHeaderWire = {{"engine_id", S}, {"stream_id", S}, {"frame_id", U32}, {"data", SEQ}};
const std::vector<WireField> kClassWire = {{"index", I32}, {"output", S}, {"label", S}, {"probability", F32}};
const std::vector<WireField> kBoxWire = {{"obj_id", I32},      {"obj_label", S}, {"class_id", I32}, {"class_label", S},
                                         {"x1", F32},          {"y1", F32},      {"x2", F32},       {"y2", F32},
                                         {"probability", F32}, {"meta", S}};
const std::vector<WireField> kSegmentWire = {
    {"engine_id", S}, {"stream_id", S}, {"frame_id", U32}, {"inference_id", U32}, {"data", SEQ}};
const std::vector<WireField> kMaskWire = {{"id", U32},          {"repeat", U32},   {"width", U32}, {"height", U32},
                                          {"size", U32},        {"channels", U32}, {"color", U32}, {"label", S},
                                          {"probability", F32}, {"data", BYTES}};

FrameInfo sampleFrame(std::size_t bytes = 12) {
    FrameInfo f;
    f.stream_id = "cam-1";
    f.frame_id = 42;
    f.timestamp = 20240102030405006LL;
    for (std::size_t i = 0; i < bytes; ++i)
        f.data.push_back(static_cast<unsigned char>(i + 1));
    f.width = 4;
    f.height = 1;
    f.channels = 3;
    f.size = static_cast<std::uint32_t>(bytes);
    f.format = "com.vision.models.PIXEL_FORMAT_BGR8";
    f.compression = "com.vision.models.COMPRESSION_KIND_NONE";
    f.framerate = 29.97f;
    return f;
}

DeviceInfo sampleDevice() {
    DeviceInfo d;
    d.stream_id = "cam-1";
    d.mac_address = "00:11:22:33:44:55";
    d.ip_address = "127.0.0.2";
    d.port = -554;
    d.uri = "rtsp://127.0.0.2/live";
    d.manufacturer = "Quorix";
    d.model = "QX-1";
    d.serial = "SN9";
    d.fw_version = "1.2.3";
    d.dev_id = "dev-7";
    d.status = "com.vision.models.DEVICE_STATUS_ON";
    d.kind = "com.vision.models.DEVICE_KIND_CAMERA";
    d.protocol = "rtsp";
    return d;
}

Information<ClassificationData> sampleClassification() {
    Information<ClassificationData> c;
    c.engine_id = "eng";
    c.stream_id = "cam";
    c.frame_id = 7;
    c.data.push_back({3, "logits", "car", 0.75f});
    c.data.push_back({-1, "aux", "bike", 0.5f});
    return c;
}

Information<DetectionBoxData> sampleDetection() {
    Information<DetectionBoxData> d;
    d.engine_id = "eng";
    d.stream_id = "cam";
    d.frame_id = 9;
    d.data.push_back({5, 1, "person", "human", 0.5f, 1.25f, 10.0f, 20.5f, 0.875f, "tracked"});
    d.data.push_back({-6, 2, "dog", "animal", 2.0f, 3.0f, 4.0f, 5.0f, 0.25f, ""});
    return d;
}

SegmentInfo sampleSegments(std::size_t count = 2) {
    SegmentInfo s;
    s.engine_id = "eng";
    s.stream_id = "cam";
    s.frame_id = 11;
    s.inference_id = 12;
    for (std::size_t i = 0; i < count; ++i) {
        SegmentationData m;
        m.id = static_cast<std::uint32_t>(i);
        m.repeat = 2;
        m.width = 100 + static_cast<std::uint32_t>(i);
        m.height = 50;
        m.size = 3;
        m.channels = 1;
        m.color = 0xff00ff;
        m.label = "label" + std::to_string(i);
        m.probability = 0.5f;
        m.data = {1, 2, static_cast<unsigned char>(i)};
        s.data.push_back(m);
    }
    return s;
}

template <typename Record> Record decoded(const Pairs &pairs) {
    Record r;
    DecodeRecord(pairs, r);
    return r;
}

} // namespace

TEST(RecordsWire, EveryEncoderWritesTheAgreedNamesKindsAndOrder) {
    expectWire(sampleFrame().Encode(), kFrameWire, "FrameInfo");
    expectWire(sampleDevice().Encode(), kDeviceWire, "DeviceInfo");

    const auto cls = sampleClassification().Encode();
    expectWire(cls, kResultHeaderWire, "Classification");
    expectListOf(cls[3], 2, kClassWire, "Classification data");

    const auto det = sampleDetection().Encode();
    expectWire(det, kResultHeaderWire, "Detection");
    expectListOf(det[3], 2, kBoxWire, "Detection data");

    const auto seg = sampleSegments().Encode();
    expectWire(seg, kSegmentWire, "SegmentInfo");
    expectListOf(seg[4], 2, kMaskWire, "Segment data");
}

TEST(RecordsWire, EmptyRecordsStillWriteEveryPair) {
    const auto frame = FrameInfo().Encode();
    expectWire(frame, kFrameWire, "empty FrameInfo");
    EXPECT_TRUE(frame[3].value().iotv_byte_seq().empty());
    expectListOf(Information<ClassificationData>().Encode()[3], 0, kClassWire, "empty classification");
    expectListOf(Information<DetectionBoxData>().Encode()[3], 0, kBoxWire, "empty detection");
    expectListOf(SegmentInfo().Encode()[4], 0, kMaskWire, "empty segments");
}

TEST(RecordsWire, ValuesLandInTheirOwnPairs) {
    // Distinct values per field, so a member written under a neighbour's name shows.
    const auto frame = sampleFrame().Encode();
    EXPECT_EQ(pairNamed(frame, "stream_id").value().iotv_string(), "cam-1");
    EXPECT_EQ(pairNamed(frame, "frame_id").value().iotv_uint32(), 42u);
    EXPECT_EQ(pairNamed(frame, "timestamp").value().iotv_int64(), 20240102030405006LL);
    EXPECT_EQ(pairNamed(frame, "data").value().iotv_byte_seq().size(), 12u);
    EXPECT_EQ(pairNamed(frame, "width").value().iotv_uint32(), 4u);
    EXPECT_EQ(pairNamed(frame, "height").value().iotv_uint32(), 1u);
    EXPECT_EQ(pairNamed(frame, "channels").value().iotv_uint32(), 3u);
    EXPECT_EQ(pairNamed(frame, "size").value().iotv_uint32(), 12u);
    EXPECT_EQ(pairNamed(frame, "compression").value().iotv_string(), "com.vision.models.COMPRESSION_KIND_NONE");

    const auto device = sampleDevice().Encode();
    EXPECT_EQ(pairNamed(device, "port").value().iotv_int32(), -554);
    EXPECT_EQ(pairNamed(device, "uri").value().iotv_string(), "rtsp://127.0.0.2/live");
    EXPECT_EQ(pairNamed(device, "fw_version").value().iotv_string(), "1.2.3");

    const auto box = sampleDetection().Encode()[3].value().iotv_nvp_seq()[0].value().iotv_nvp_seq();
    EXPECT_EQ(pairNamed(box, "obj_id").value().iotv_int32(), 5);
    EXPECT_EQ(pairNamed(box, "class_id").value().iotv_int32(), 1);
    EXPECT_EQ(pairNamed(box, "obj_label").value().iotv_string(), "person");
    EXPECT_EQ(pairNamed(box, "class_label").value().iotv_string(), "human");
    EXPECT_FLOAT_EQ(pairNamed(box, "y1").value().iotv_float32(), 1.25f);
    EXPECT_FLOAT_EQ(pairNamed(box, "x2").value().iotv_float32(), 10.0f);

    const auto mask = sampleSegments().Encode()[4].value().iotv_nvp_seq()[1].value().iotv_nvp_seq();
    EXPECT_EQ(pairNamed(mask, "width").value().iotv_uint32(), 101u);
    EXPECT_EQ(pairNamed(mask, "color").value().iotv_uint32(), 0xff00ffu);
    EXPECT_EQ(pairNamed(mask, "label").value().iotv_string(), "label1");
}

// Decoding what was encoded must give back a record that encodes to the
// very same pairs; combined with the wire checks above this covers every member.
TEST(RecordsRoundTrip, DecodeThenEncodeReproducesThePairs) {
    const std::vector<std::pair<const char *, std::function<Pairs(const Pairs &)>>> cases = {
        {"frame", [](const Pairs &p) { return decoded<FrameInfo>(p).Encode(); }},
        {"device", [](const Pairs &p) { return decoded<DeviceInfo>(p).Encode(); }},
        {"classification", [](const Pairs &p) { return decoded<Information<ClassificationData>>(p).Encode(); }},
        {"detection", [](const Pairs &p) { return decoded<Information<DetectionBoxData>>(p).Encode(); }},
        {"segments", [](const Pairs &p) { return decoded<SegmentInfo>(p).Encode(); }},
    };
    const std::vector<Pairs> inputs = {sampleFrame().Encode(), sampleDevice().Encode(), sampleClassification().Encode(),
                                       sampleDetection().Encode(), sampleSegments(3).Encode()};
    for (std::size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(cases[i].second(inputs[i]), inputs[i]) << cases[i].first;
}

TEST(RecordsRoundTrip, DetectionBoxKeepsAllTenValuesDespiteTheWireOrder) {
    const auto back = decoded<Information<DetectionBoxData>>(sampleDetection().Encode());
    ASSERT_EQ(back.data.size(), 2u);
    const auto &b = back.data[0];
    EXPECT_EQ(b.obj_id, 5);
    EXPECT_EQ(b.class_id, 1);
    EXPECT_EQ(b.obj_label, "person");
    EXPECT_EQ(b.class_label, "human");
    EXPECT_FLOAT_EQ(b.x1, 0.5f);
    EXPECT_FLOAT_EQ(b.y1, 1.25f);
    EXPECT_FLOAT_EQ(b.x2, 10.0f);
    EXPECT_FLOAT_EQ(b.y2, 20.5f);
    EXPECT_FLOAT_EQ(b.probability, 0.875f);
    EXPECT_EQ(b.meta, "tracked");
    EXPECT_EQ(back.data[1].obj_id, -6);
}

TEST(RecordsRoundTrip, MovingDecoderTakesTheSameValues) {
    const FrameInfo original = sampleFrame(300);
    FrameInfo copied;
    DecodeRecord(original.Encode(), copied);
    FrameInfo moved;
    DecodeRecord(Pairs(original.Encode()), moved);
    EXPECT_EQ(moved.Encode(), copied.Encode());
    EXPECT_EQ(moved.data, original.data);
}

TEST(RecordsDecode, FrameRules) {
    struct Case {
        const char *what;
        Pairs pairs;
        std::function<void(const FrameInfo &)> check;
    };
    const std::vector<Case> cases = {
        {"unknown names are ignored",
         {pairU32("frame_id", 5), pairStr("colour", "red"), pairI32("", 3)},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.frame_id, 5u);
             EXPECT_EQ(f.Encode(), [] {
                 FrameInfo e;
                 e.frame_id = 5;
                 return e.Encode();
             }());
         }},
        {"a missing framerate stays 0",
         {pairStr("stream_id", "s"), pairU32("width", 8)},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.framerate, 0.0f);
             EXPECT_EQ(f.width, 8u);
             EXPECT_EQ(f.stream_id, "s");
         }},
        {"the last of two equal names wins",
         {pairU32("frame_id", 1), pairStr("format", "a"), pairU32("frame_id", 2), pairStr("format", "b")},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.frame_id, 2u);
             EXPECT_EQ(f.format, "b");
         }},
        {"names are case-sensitive",
         {pairU32("FRAME_ID", 9), pairU32("Frame_id", 8), pairStr("Stream_id", "x")},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.frame_id, 0u);
             EXPECT_EQ(f.stream_id, "");
         }},
        {"order does not matter",
         {pairF32("framerate", 12.5f), pairBytes("data", {9, 8}), pairStr("stream_id", "z")},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.framerate, 12.5f);
             EXPECT_EQ(f.data, (std::vector<unsigned char>{9, 8}));
             EXPECT_EQ(f.stream_id, "z");
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        c.check(decoded<FrameInfo>(c.pairs));
    }
}

TEST(RecordsDecode, ListEntriesDecodeWhateverTheirNameAndInOrder) {
    Pairs first = {pairI32("index", 1), pairStr("label", "a")};
    Pairs second = {pairI32("index", 2), pairStr("label", "b"), pairStr("extra", "ignored")};
    IOT_NVP named = pairSeq("some name", second);
    const Pairs pairs = {pairStr("engine_id", "e"), pairSeq("data", {pairSeq("", first), named})};
    const auto info = decoded<Information<ClassificationData>>(pairs);
    ASSERT_EQ(info.data.size(), 2u);
    EXPECT_EQ(info.data[0].index, 1);
    EXPECT_EQ(info.data[0].label, "a");
    EXPECT_EQ(info.data[1].index, 2);
    EXPECT_EQ(info.data[1].label, "b");
    EXPECT_EQ(info.engine_id, "e");

    EXPECT_TRUE(decoded<SegmentInfo>(SegmentInfo().Encode()).data.empty());
}

TEST(RecordsDecode, WrongKindThrowsTheBusLibrarysError) {
    using com::quorixtech::iot::IotKindError;
    const std::vector<std::pair<const char *, std::function<void()>>> cases = {
        {"frame_id as int32", [] { decoded<FrameInfo>({pairI32("frame_id", 1)}); }},
        {"data as string", [] { decoded<FrameInfo>({pairStr("data", "x")}); }},
        {"port as string", [] { decoded<DeviceInfo>({pairStr("port", "80")}); }},
        {"classification index as uint32",
         [] { decoded<Information<ClassificationData>>({pairSeq("data", {pairSeq("", {pairU32("index", 1)})})}); }},
        {"detection data entry not a sequence",
         [] { decoded<Information<DetectionBoxData>>({pairSeq("data", {pairStr("", "box")})}); }},
        {"detection data as bytes", [] { decoded<Information<DetectionBoxData>>({pairBytes("data", {1})}); }},
        {"segment inference_id as int64", [] { decoded<SegmentInfo>({pairI64("inference_id", 1)}); }},
        {"mask probability as string",
         [] { decoded<SegmentInfo>({pairSeq("data", {pairSeq("", {pairStr("probability", "1")})})}); }},
    };
    for (const auto &c : cases)
        EXPECT_THROW(c.second(), IotKindError) << c.first;
}

TEST(RecordsDump, FrameInfo) {
    EXPECT_EQ(sampleFrame().GetString(), "************************************\n"
                                         "stream_id = cam-1\n"
                                         "frame_id = 42\n"
                                         "timestamp = 20240102030405006\n"
                                         "data = 1,2,3,4,5,6,7,8,9,10, ... \n"
                                         "width = 4\n"
                                         "height = 1\n"
                                         "channels = 3\n"
                                         "size = 12\n"
                                         "format = com.vision.models.PIXEL_FORMAT_BGR8\n"
                                         "compression = com.vision.models.COMPRESSION_KIND_NONE\n"
                                         "framerate = 29.97\n"
                                         "************************************\n");
    EXPECT_EQ(FrameInfo().GetString(), "");
    EXPECT_NE(sampleFrame(3).GetString().find("data = 1,2,3, ... \n"), std::string::npos);
}

TEST(RecordsDump, DeviceInfo) {
    EXPECT_EQ(sampleDevice().GetString(), "************************************\n"
                                          "stream_id = cam-1\n"
                                          "mac_address = 00:11:22:33:44:55\n"
                                          "ip_address = 127.0.0.2\n"
                                          "port = -554\n"
                                          "URI = rtsp://127.0.0.2/live\n"
                                          "manufacturer = Quorix\n"
                                          "model = QX-1\n"
                                          "serial = SN9\n"
                                          "fw_version = 1.2.3\n"
                                          "dev_id = dev-7\n"
                                          "status = com.vision.models.DEVICE_STATUS_ON\n"
                                          "kind = com.vision.models.DEVICE_KIND_CAMERA\n"
                                          "protocol = rtsp\n"
                                          "************************************\n");
}

TEST(RecordsDump, Classification) {
    EXPECT_EQ(sampleClassification().GetString(), "************************************\n"
                                                  "EngineID = eng\n"
                                                  "StreamID = cam\n"
                                                  "FrameID = 7\n"
                                                  "Data content = \n"
                                                  "\n"
                                                  "[0]\n"
                                                  " Index = 3\n"
                                                  " Output = logits\n"
                                                  " Label = car\n"
                                                  " Probability = 0.75\n"
                                                  " --------- \n"
                                                  "[1]\n"
                                                  " Index = -1\n"
                                                  " Output = aux\n"
                                                  " Label = bike\n"
                                                  " Probability = 0.5\n"
                                                  " --------- \n"
                                                  "************************************\n");
}

TEST(RecordsDump, Detection) {
    auto det = sampleDetection();
    det.data.resize(1);
    EXPECT_EQ(det.GetString(), "************************************\n"
                               "EngineID = eng\n"
                               "StreamID = cam\n"
                               "FrameID = 9\n"
                               "Data content = \n"
                               "\n"
                               "[0]\n"
                               " (ObjID, ObjLabel) = (5, person)\n"
                               " (ClassID, ClassLabel) = (1, human)\n"
                               " (X1, Y1, X2, Y2) = (0.5, 1.25, 10, 20.5)\n"
                               " Probability = 0.875\n"
                               " Meta = tracked\n"
                               " --------- \n"
                               "************************************\n");
}

TEST(RecordsDump, SegmentsShowAtMostTenElements) {
    std::string expected = "************************************\n"
                           "engine_id = eng\n"
                           "stream_id = cam\n"
                           "frame_id = 11\n"
                           "inference_id = 12\n"
                           "data = \n";
    for (int i = 0; i < 10; ++i)
        expected += std::to_string(i) + ", label" + std::to_string(i) + ", " + std::to_string(100 + i) + ", 50\n";
    expected += " ... \n";
    EXPECT_EQ(sampleSegments(12).GetString(), expected);
}

TEST(RecordsCopy, AppendsBytesAndCopiesEverythingElse) {
    FrameInfo source = sampleFrame(5);
    FrameInfo target;
    target.data = {200, 201, 202, 203};
    target.stream_id = "old";
    source.Copy(target);
    ASSERT_EQ(target.data.size(), 4u + 5u);
    EXPECT_EQ(target.data[0], 200);
    EXPECT_EQ(target.data[4], 1);
    EXPECT_EQ(target.data[8], 5);
    // Apart from the kept bytes in front, the target now encodes as the source.
    target.data.erase(target.data.begin(), target.data.begin() + 4);
    EXPECT_EQ(target.Encode(), source.Encode());
}
