// Guards how records typed in as JSON become the pairs readers expect (kinds
// from the definition, explicit or inferred), and how received pairs come out
// as JSON and as readable, escaped text.

#include <gtest/gtest.h>

#include "json_pairs.h"
#include "pair_builders.h"
#include "value_format.h"

namespace {

using namespace pairtest;
using com::quorixtech::iot::IotKind;

TEST(QxbusRecords, JsonBecomesThePairsReadersExpect) {
    const std::vector<com::quorixtech::marlet::FieldDefinition> fields = {{"engine_id", IotKind::iotv_string},
                                                                          {"frame_id", IotKind::iotv_uint32},
                                                                          {"timestamp", IotKind::iotv_int64},
                                                                          {"framerate", IotKind::iotv_float32},
                                                                          {"data", IotKind::iotv_nvp_seq}};
    const std::pair<const char *, qxbus::Pairs> cases[] = {
        // The definition's kinds win over what the number looks like; pairs keep the written (unsorted) order.
        {R"({"frame_id": 4294967295, "timestamp": 20240102030405006, "framerate": 30, "engine_id": "e"})",
         {u32("frame_id", 4294967295u), i64("timestamp", 20240102030405006), f32("framerate", 30),
          str("engine_id", "e")}},
        // Explicit kinds: for fields the definition lacks, and over the definition's own.
        {R"({"extra": {"uint32": 5}, "raw": {"byte_seq": [0, 255]}, "frame_id": {"int32": -3}})",
         {u32("extra", 5), bytes("raw", {0, 255}), i32("frame_id", -3)}},
        // A list is unnamed entries, each holding its item's own sequence.
        {R"({"data": [{"obj_id": 1, "x1": 0.5, "obj_label": "car"}, {"id": {"uint32": 9}}]})",
         {seq("data", {IOT_NVP("", seq({i32("obj_id", 1), f32("x1", 0.5f), str("obj_label", "car")})),
                       IOT_NVP("", seq({u32("id", 9)}))})}},
        {R"({"data": {"big": 3000000000, "small": -2147483648, "none": []}})",
         {seq("data", {i64("big", 3000000000LL), i32("small", INT32_MIN), seq("none", {})})}},
    };
    for (const auto &[json, pairs] : cases)
        EXPECT_EQ(qxbus::pairsFromJson(json, fields), pairs) << json;
    EXPECT_EQ(qxbus::pairsFromJson(R"({"anything": 1})", {}), qxbus::Pairs{i32("anything", 1)}); // no definition
}

TEST(QxbusRecords, PairsBecomeJsonAndEscapedTextWithBytesSummarised) {
    com::quorixtech::iot::ByteSeq twenty(20);
    for (std::size_t i = 0; i < twenty.size(); ++i)
        twenty[i] = static_cast<std::uint8_t>(i);
    const qxbus::Pairs received = {u32("frame_id", 4294967295u), bytes("data", twenty),
                                   seq("boxes", {IOT_NVP("", seq({f32("x1", 0.25f)})), IOT_NVP("", seq({}))}),
                                   str("meta", "m")};
    EXPECT_EQ(qxbus::pairsToJson(received).dump(),
              R"({"frame_id":4294967295,"data":{"bytes":20,"head":"00 01 02 03 04 05 06 07 08 09 0a 0b 0c )"
              R"(0d 0e 0f ..."},"boxes":[{"x1":0.25},[]],"meta":"m"})");

    const qxbus::Pairs hostile = {str("stream_id", "cam\x1b[2J"), bytes("data", {1, 2, 3, 4}),
                                  seq("boxes", {IOT_NVP("", seq({i32("obj_id", -7), f32("x1", 0.1f)}))}),
                                  bytes("empty", {}), i32("odd\nname", 1)};
    EXPECT_EQ(qxbus::formatPairs(hostile), "stream_id (string) = \"cam\\u001b[2J\"\n"
                                           "data (byte_seq) = 4 bytes: 01 02 03 04\n"
                                           "boxes (nvp_seq), 1 entry\n"
                                           "  [0] (nvp_seq), 2 entries\n"
                                           "    obj_id (int32) = -7\n"
                                           "    x1 (float32) = 0.1\n"
                                           "empty (byte_seq) = 0 bytes\n"
                                           "\"odd\\nname\" (int32) = 1\n");
}

} // namespace
