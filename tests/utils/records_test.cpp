// The five separate bus records: wire tables, round trips, decoding rules,
// text dumps and FrameInfo::Copy.

#include <functional>

#include <gtest/gtest.h>

#include "frame_information.h"
#include "helpers/edge_sample_records.h"
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

namespace es = edge_samples;

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
    EXPECT_EQ(sampleFrame().Encode(),
              (Pairs{str("stream_id", "cam-1"), u32("frame_id", 42), i64("timestamp", 20240102030405006LL),
                     bytes("data", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), u32("width", 4), u32("height", 1),
                     u32("channels", 3), u32("size", 12), str("format", "com.vision.models.PIXEL_FORMAT_BGR8"),
                     str("compression", "com.vision.models.COMPRESSION_KIND_NONE"), f32("framerate", 29.97f)}));
    EXPECT_EQ(
        es::device().Encode(),
        (Pairs{str("stream_id", "cam-front"), str("mac_address", "02:42:ac:11:00:02"), str("ip_address", "127.0.0.2"),
               i32("port", -554), str("uri", "rtsp://127.0.0.2/stream1"), str("manufacturer", "Quorix"),
               str("model", "QX-CAM-9"), str("serial", "SN-0042"), str("fw_version", "3.1.4"), str("dev_id", "dev-7"),
               str("status", "com.vision.models.DEVICE_STATUS_ONLINE"),
               str("kind", "com.vision.models.DEVICE_KIND_CAMERA"),
               str("protocol", "com.vision.models.INTERFACE_RTSP")}));
    // Box members are declared in another order than they go on the wire.
    EXPECT_EQ(es::detection().Encode()[3].value().iotv_nvp_seq()[0].value().iotv_nvp_seq(),
              (Pairs{i32("obj_id", 5), str("obj_label", "person-5"), i32("class_id", -1), str("class_label", "person"),
                     f32("x1", 10.5f), f32("y1", 20.25f), f32("x2", 300.0f), f32("y2", 400.75f),
                     f32("probability", 0.875f), str("meta", "{\"track\":3}")}));
    const auto mask = sampleSegments().Encode()[4].value().iotv_nvp_seq()[1].value().iotv_nvp_seq();
    EXPECT_EQ(pairNamed(mask, "width").value().iotv_uint32(), 101u);
    EXPECT_EQ(pairNamed(mask, "color").value().iotv_uint32(), 0xff00ffu);
    EXPECT_EQ(pairNamed(mask, "label").value().iotv_string(), "label1");
}

TEST(RecordsWire, ResultListsWriteTheAgreedLayoutEvenWhenEmpty) {
    const auto cls = es::classification().Encode();
    expectWire(cls, kResultHeaderWire, "Classification");
    expectListOf(cls[3], 2, kClassWire, "Classification data");
    const auto det = es::detection().Encode();
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
    const auto expectRoundTrip = [](const auto &record, const char *what) {
        using Record = std::decay_t<decltype(record)>;
        EXPECT_EQ(decoded<Record>(record.Encode()).Encode(), record.Encode()) << what;
    };
    expectRoundTrip(sampleFrame(), "frame");
    expectRoundTrip(es::device(), "device");
    expectRoundTrip(es::classification(), "classification");
    expectRoundTrip(es::detection(), "detection");
    expectRoundTrip(sampleSegments(3), "segments");
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
         {u32("frame_id", 5), str("colour", "red"), i32("", 3)},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.frame_id, 5u);
             EXPECT_EQ(f.Encode(), [] {
                 FrameInfo e;
                 e.frame_id = 5;
                 return e.Encode();
             }());
         }},
        {"a missing framerate stays 0",
         {str("stream_id", "s"), u32("width", 8)},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.framerate, 0.0f);
             EXPECT_EQ(f.width, 8u);
             EXPECT_EQ(f.stream_id, "s");
         }},
        {"the last of two equal names wins",
         {u32("frame_id", 1), str("format", "a"), u32("frame_id", 2), str("format", "b")},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.frame_id, 2u);
             EXPECT_EQ(f.format, "b");
         }},
        {"names are case-sensitive",
         {u32("FRAME_ID", 9), u32("Frame_id", 8), str("Stream_id", "x")},
         [](const FrameInfo &f) {
             EXPECT_EQ(f.frame_id, 0u);
             EXPECT_EQ(f.stream_id, "");
         }},
        {"order does not matter",
         {f32("framerate", 12.5f), bytes("data", {9, 8}), str("stream_id", "z")},
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
    Pairs first = {i32("index", 1), str("label", "a")};
    Pairs second = {i32("index", 2), str("label", "b"), str("extra", "ignored")};
    IOT_NVP named = seq("some name", second);
    const Pairs pairs = {str("engine_id", "e"), seq("data", {seq("", first), named})};
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
        {"frame_id as int32", [] { decoded<FrameInfo>({i32("frame_id", 1)}); }},
        {"data as string", [] { decoded<FrameInfo>({str("data", "x")}); }},
        {"port as string", [] { decoded<DeviceInfo>({str("port", "80")}); }},
        {"classification index as uint32",
         [] { decoded<Information<ClassificationData>>({seq("data", {seq("", {u32("index", 1)})})}); }},
        {"detection data entry not a sequence",
         [] { decoded<Information<DetectionBoxData>>({seq("data", {str("", "box")})}); }},
        {"detection data as bytes", [] { decoded<Information<DetectionBoxData>>({bytes("data", {1})}); }},
        {"segment inference_id as int64", [] { decoded<SegmentInfo>({i64("inference_id", 1)}); }},
        {"mask probability as string",
         [] { decoded<SegmentInfo>({seq("data", {seq("", {str("probability", "1")})})}); }},
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
    EXPECT_EQ(es::device().GetString(), "************************************\n"
                                        "stream_id = cam-front\n"
                                        "mac_address = 02:42:ac:11:00:02\n"
                                        "ip_address = 127.0.0.2\n"
                                        "port = -554\n"
                                        "URI = rtsp://127.0.0.2/stream1\n"
                                        "manufacturer = Quorix\n"
                                        "model = QX-CAM-9\n"
                                        "serial = SN-0042\n"
                                        "fw_version = 3.1.4\n"
                                        "dev_id = dev-7\n"
                                        "status = com.vision.models.DEVICE_STATUS_ONLINE\n"
                                        "kind = com.vision.models.DEVICE_KIND_CAMERA\n"
                                        "protocol = com.vision.models.INTERFACE_RTSP\n"
                                        "************************************\n");
}

TEST(RecordsDump, Classification) {
    EXPECT_EQ(es::classification().GetString(), "************************************\n"
                                                "EngineID = classifier-1\n"
                                                "StreamID = cam-front\n"
                                                "FrameID = 4000000000\n"
                                                "Data content = \n"
                                                "\n"
                                                "[0]\n"
                                                " Index = -3\n"
                                                " Output = logits\n"
                                                " Label = cat\n"
                                                " Probability = 0.75\n"
                                                " --------- \n"
                                                "[1]\n"
                                                " Index = 281\n"
                                                " Output = logits\n"
                                                " Label = tabby\n"
                                                " Probability = 0.125\n"
                                                " --------- \n"
                                                "************************************\n");
}

TEST(RecordsDump, Detection) {
    auto det = es::detection();
    det.data.resize(1);
    EXPECT_EQ(det.GetString(), "************************************\n"
                               "EngineID = detector-2\n"
                               "StreamID = cam-front\n"
                               "FrameID = 17\n"
                               "Data content = \n"
                               "\n"
                               "[0]\n"
                               " (ObjID, ObjLabel) = (5, person-5)\n"
                               " (ClassID, ClassLabel) = (-1, person)\n"
                               " (X1, Y1, X2, Y2) = (10.5, 20.25, 300, 400.75)\n"
                               " Probability = 0.875\n"
                               " Meta = {\"track\":3}\n"
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
