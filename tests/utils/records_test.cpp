// Guards the records on the wire, separate and combined: a pair renamed, retyped,
// reordered or given its neighbour's value (peers then read garbage), a list left
// out when empty, a decoder that loses a field or mishandles names it does not
// know or values of the wrong kind.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frame_information.h"
#include "helpers/edge_sample_records.h"
#include "pair_builders.h"
#include "pair_text.h"
#include "uni_information.h"

using namespace pairtest;
using namespace TOLVIXO;
using com::quorixtech::iot::IotKindError;
using Pairs = std::vector<IOT_NVP>;

namespace {

namespace es = edge_samples;
using Classifications = Information<ClassificationData>;
using Detections = Information<DetectionBoxData>;

FrameInfo sampleFrame() {
    return {"cam-1", 42,    20240102030405006LL, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, 4, 1, 3, 12, "bgr",
            "none",  29.97f};
}

// Decodes pairs as a record of type R and encodes that record again.
template <typename R> Pairs reencode(const Pairs &pairs) {
    R record;
    DecodeRecord(pairs, record);
    return record.Encode();
}
template <> Pairs reencode<UniInfo>(const Pairs &pairs) { return UniInfo::Decode(pairs).Encode(); }

using Reencode = Pairs (*)(const Pairs &);

} // namespace

// Whole encodings as peers expect them (names, kinds, order, values: every
// value distinct, so one written into its neighbour's pair shows), and a
// decoder that gives back every one of them.
TEST(RecordsWire, EveryRecordEncodesAsPeersExpectAndDecodesToTheSamePairs) {
    // The box's engine id is lost on the way (see RecordsDecode): left out here.
    UniInfo uni = es::uni();
    uni.videoList[0].detectionResult[0].engine_id.clear();
    const std::string device = pairText(es::device().Encode());
    const std::string rear = "stream_id:s=cam-rear" + device.substr(device.find(' '));
    const struct {
        Pairs pairs;
        Reencode back;
        std::string expected;
    } rows[] = {
        {sampleFrame().Encode(), reencode<FrameInfo>,
         "stream_id:s=cam-1 frame_id:u32=42 timestamp:i64=20240102030405006 data:b=1,2,3,4,5,6,7,8,9,10,11,12 "
         "width:u32=4 height:u32=1 channels:u32=3 size:u32=12 format:s=bgr compression:s=none framerate:f32=29.97"},
        {es::device().Encode(), reencode<DeviceInfo>,
         "stream_id:s=cam-front mac_address:s=02:42:ac ip_address:s=127.0.0.2 port:i32=-554 uri:s=rtsp://cam/1 "
         "manufacturer:s=Quorix model:s=QX-9 serial:s=SN-42 fw_version:s=3.1 dev_id:s=dev-7 status:s=online "
         "kind:s=camera protocol:s=rtsp"},
        {es::classification().Encode(), reencode<Classifications>,
         "engine_id:s=classifier-1 stream_id:s=cam-front frame_id:u32=4000000000 data{"
         "{index:i32=-3 output:s=logits label:s=cat probability:f32=0.75} "
         "{index:i32=281 output:s=logits label:s=tabby probability:f32=0.125}}"},
        {es::detection().Encode(), reencode<Detections>,
         "engine_id:s=detector-2 stream_id:s=cam-front frame_id:u32=17 data{{obj_id:i32=5 obj_label:s=person-5 "
         "class_id:i32=-1 class_label:s=person x1:f32=10.5 y1:f32=20.25 x2:f32=300 y2:f32=400.75 "
         "probability:f32=0.875 meta:s={}}}"},
        {es::segmentation().Encode(), reencode<SegmentInfo>,
         "engine_id:s=segmenter-3 stream_id:s=cam-front frame_id:u32=17 inference_id:u32=99 data{{id:u32=1 "
         "repeat:u32=2 width:u32=4 height:u32=5 size:u32=8 channels:u32=3 color:u32=16711935 label:s=road "
         "probability:f32=0.5 data:b=0,1,2,3,255}}"},
        {uni.Encode(), reencode<UniInfo>,
         "VideoList{{" + pairText(es::frame(21).Encode()) +
             " ClassificationResult{{engine_id:s=classifier-1 index:u32=4294967295 output:s=logits label:s=cat "
             "probability:f32=0.75}} DetectionResult{{engin_id:s= obj_id:u32=4000000001 obj_label:s=bike-1 "
             "class_id:u32=3 class_label:s=bike x1:f32=1.5 y1:f32=2.5 x2:f32=3.5 y2:f32=4.5 probability:f32=0.25 "
             "meta:s=m}} SegmentationResult{{id:u32=9 repeat:u32=1 width:u32=2 height:u32=3 size:u32=4 "
             "channels:u32=5 color:u32=7 label:s=sky probability:f32=0.5 data:b=9,8,7,6}}}} DeviceList{{" +
             device + "} {" + rear + "}}"},
        // Lists are written even when empty.
        {Classifications().Encode(), reencode<Classifications>, "engine_id:s= stream_id:s= frame_id:u32=0 data{}"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(pairText(row.pairs), row.expected);
        EXPECT_EQ(row.back(row.pairs), row.pairs) << row.expected;
    }
}

// What a decoder makes of pairs as other peers may send them; shown as the
// set fields of the record it gives, encoded again.
TEST(RecordsDecode, NamesAreMatchedExactlyInAnyOrderAndTheLastOneWins) {
    const struct {
        Reencode back;
        Pairs pairs;
        const char *expected;
    } rows[] = {
        // Unknown names and names in another case are ignored.
        {reencode<FrameInfo>,
         {f32("framerate", 12.5f), str("colour", "red"), u32("FRAME_ID", 9), i32("", 3), u32("frame_id", 1),
          str("format", "a"), u32("frame_id", 2)},
         "frame_id:u32=2 format:s=a framerate:f32=12.5"},
        // List entries are taken whatever their name, in order; a repeated list replaces the first.
        {reencode<Classifications>,
         {seq("data", {seq("", {i32("index", 1)}), seq("some name", {i32("index", 2), str("extra", "y")})})},
         "data{{index:i32=1} {index:i32=2}}"},
        {reencode<SegmentInfo>,
         {seq("data", {seq("", {u32("id", 1)})}), seq("data", {seq("", {u32("id", 2)})})},
         "data{{id:u32=2}}"},
        // Written as "engin_id" (what peers have always written), read as "engine_id".
        {reencode<UniInfo>,
         {seq("VideoList", {seq("", {seq("DetectionResult", {seq("", {str("engine_id", "peer"), u32("obj_id", 3)}),
                                                             seq("", {str("engin_id", "x"), u32("obj_id", 4)})})})})},
         "VideoList{{ClassificationResult{} DetectionResult{{engin_id:s=peer obj_id:u32=3} {obj_id:u32=4}} "
         "SegmentationResult{}}} DeviceList{}"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(pairText(row.back(row.pairs), true), row.expected);
}

// The separate records carry signed ids where the combined record carries
// unsigned ones; neither decoder converts.
TEST(RecordsDecode, ValueOfTheWrongKindThrowsTheBusLibrarysError) {
    const struct {
        Reencode back;
        Pairs pairs;
        const char *message;
    } rows[] = {
        {reencode<FrameInfo>, {i32("frame_id", 1)}, "expected iotv_uint32, actual iotv_int32"},
        {reencode<Classifications>, {bytes("data", {1})}, "expected iotv_nvp_seq, actual iotv_byte_seq"},
        {reencode<Detections>, {seq("data", {str("", "box")})}, "expected iotv_nvp_seq, actual iotv_string"},
        {reencode<UniInfo>,
         {seq("VideoList", {seq("", {seq("DetectionResult", {seq("", {i32("obj_id", 1)})})})})},
         "expected iotv_uint32, actual iotv_int32"},
    };
    for (const auto &row : rows) {
        try {
            row.back(row.pairs);
            ADD_FAILURE() << "accepted " << pairText(row.pairs);
        } catch (const IotKindError &e) {
            EXPECT_EQ(e.what(), std::string("IOT_VALUE kind mismatch: ") + row.message);
        }
    }
}
