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

const Wire kResultHeaderWire = {{"engine_id", S}, {"stream_id", S}, {"frame_id", U32}, {"data", SEQ}};
const Wire kClassWire = {{"index", I32}, {"output", S}, {"label", S}, {"probability", F32}};
const Wire kBoxWire = {{"obj_id", I32}, {"obj_label", S}, {"class_id", I32}, {"class_label", S},   {"x1", F32},
                       {"y1", F32},     {"x2", F32},      {"y2", F32},       {"probability", F32}, {"meta", S}};
const Wire kSegmentWire = {{"engine_id", S}, {"stream_id", S}, {"frame_id", U32}, {"inference_id", U32}, {"data", SEQ}};

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
    return {"cam-1",
            "00:11:22:33:44:55",
            "127.0.0.2",
            -554,
            "rtsp://127.0.0.2/live",
            "Quorix",
            "QX-1",
            "SN9",
            "1.2.3",
            "dev-7",
            "com.vision.models.DEVICE_STATUS_ON",
            "com.vision.models.DEVICE_KIND_CAMERA",
            "rtsp"};
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
        const auto n = static_cast<std::uint32_t>(i);
        const auto byte = static_cast<unsigned char>(n);
        s.data.push_back({n, 2, 100 + n, 50, 3, 1, 0xff00ff, "label" + std::to_string(n), 0.5f, {1, 2, byte}});
    }
    return s;
}

template <typename Record> Record decoded(const Pairs &pairs) {
    Record r;
    DecodeRecord(pairs, r);
    return r;
}

} // namespace

// Whole encodings written out by hand: names, kinds, order and that every
// value lands in its own pair (distinct values, so a neighbour's shows).
TEST(RecordsWire, FrameDeviceAndBoxEncodeAsPeersExpect) {
    EXPECT_EQ(
        sampleFrame().Encode(),
        (Pairs{pairStr("stream_id", "cam-1"), pairU32("frame_id", 42), pairI64("timestamp", 20240102030405006LL),
               pairBytes("data", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), pairU32("width", 4), pairU32("height", 1),
               pairU32("channels", 3), pairU32("size", 12), pairStr("format", "com.vision.models.PIXEL_FORMAT_BGR8"),
               pairStr("compression", "com.vision.models.COMPRESSION_KIND_NONE"), pairF32("framerate", 29.97f)}));
    EXPECT_EQ(sampleDevice().Encode(),
              (Pairs{pairStr("stream_id", "cam-1"), pairStr("mac_address", "00:11:22:33:44:55"),
                     pairStr("ip_address", "127.0.0.2"), pairI32("port", -554), pairStr("uri", "rtsp://127.0.0.2/live"),
                     pairStr("manufacturer", "Quorix"), pairStr("model", "QX-1"), pairStr("serial", "SN9"),
                     pairStr("fw_version", "1.2.3"), pairStr("dev_id", "dev-7"),
                     pairStr("status", "com.vision.models.DEVICE_STATUS_ON"),
                     pairStr("kind", "com.vision.models.DEVICE_KIND_CAMERA"), pairStr("protocol", "rtsp")}));
    // Box members are declared in another order than they go on the wire.
    EXPECT_EQ(sampleDetection().Encode()[3].value().iotv_nvp_seq()[0].value().iotv_nvp_seq(),
              (Pairs{pairI32("obj_id", 5), pairStr("obj_label", "person"), pairI32("class_id", 1),
                     pairStr("class_label", "human"), pairF32("x1", 0.5f), pairF32("y1", 1.25f), pairF32("x2", 10.0f),
                     pairF32("y2", 20.5f), pairF32("probability", 0.875f), pairStr("meta", "tracked")}));
    const auto mask = sampleSegments().Encode()[4].value().iotv_nvp_seq()[1].value().iotv_nvp_seq();
    EXPECT_EQ(pairNamed(mask, "width").value().iotv_uint32(), 101u);
    EXPECT_EQ(pairNamed(mask, "color").value().iotv_uint32(), 0xff00ffu);
    EXPECT_EQ(pairNamed(mask, "label").value().iotv_string(), "label1");
}

TEST(RecordsWire, ResultListsWriteTheAgreedLayoutEvenWhenEmpty) {
    const auto cls = sampleClassification().Encode();
    expectWire(cls, kResultHeaderWire, "Classification");
    expectListOf(cls[3], 2, kClassWire, "Classification data");
    const auto det = sampleDetection().Encode();
    expectWire(det, kResultHeaderWire, "Detection");
    expectListOf(det[3], 2, kBoxWire, "Detection data");
    const auto seg = sampleSegments().Encode();
    expectWire(seg, kSegmentWire, "SegmentInfo");
    expectListOf(seg[4], 2, kMaskWire, "Segment data");

    const auto frame = FrameInfo().Encode();
    expectWire(frame, kFrameWire, "empty FrameInfo");
    EXPECT_TRUE(frame[3].value().iotv_byte_seq().empty());
    expectListOf(Information<ClassificationData>().Encode()[3], 0, kClassWire, "empty classification");
    expectListOf(Information<DetectionBoxData>().Encode()[3], 0, kBoxWire, "empty detection");
    expectListOf(SegmentInfo().Encode()[4], 0, kMaskWire, "empty segments");
}

// Decoding what was encoded must give back a record that encodes to the
// very same pairs; with the encodings checked above this shows every member
// decoded into its own field.
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
