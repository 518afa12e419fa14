// Records typed in as JSON become the pairs readers expect, and received pairs
// come out as readable text and JSON.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "json_pairs.h"
#include "pair_builders.h"
#include "value_format.h"

namespace {

namespace iot = com::quorixtech::iot;
using com::quorixtech::marlet::FieldDefinition;
using iot::IotKind;

using namespace pairtest;

const std::vector<FieldDefinition> kDetectionFields = {{"engine_id", IotKind::iotv_string},
                                                       {"frame_id", IotKind::iotv_uint32},
                                                       {"timestamp", IotKind::iotv_int64},
                                                       {"framerate", IotKind::iotv_float32},
                                                       {"data", IotKind::iotv_nvp_seq}};

struct ParseCase {
    const char *label;
    const char *json;
    qxbus::Pairs expected;
};

void PrintTo(const ParseCase &c, std::ostream *os) { *os << c.label; }

class JsonToPairs : public ::testing::TestWithParam<ParseCase> {};

TEST_P(JsonToPairs, GivesTheKindsReadersExpect) {
    EXPECT_EQ(qxbus::pairsFromJson(GetParam().json, kDetectionFields), GetParam().expected);
}

const ParseCase kParseCases[] = {
    // The definition's kinds win over what the number looks like; pairs keep the written (unsorted) order.
    {"DefinitionKinds",
     R"({"frame_id": 4294967295, "timestamp": 20240102030405006, "framerate": 30, "engine_id": "e"})",
     {{"frame_id", u32(4294967295u)},
      {"timestamp", i64(20240102030405006)},
      {"framerate", f32(30.0f)},
      {"engine_id", str("e")}}},
    {"ExplicitKindsForUndefinedFields",
     R"({"extra": {"uint32": 5}, "raw": {"byte_seq": [0, 255]}, "wide": {"int64": -1}})",
     {{"extra", u32(5)}, {"raw", bytes({0, 255})}, {"wide", i64(-1)}}},
    {"ExplicitKindOverridesDefinition", R"({"frame_id": {"int32": -3}})", {{"frame_id", i32(-3)}}},
    // A list is unnamed entries, each holding its item's own sequence.
    {"ListOfObjects",
     R"({"data": [{"obj_id": 1, "x1": 0.5, "obj_label": "car"}, {"id": {"uint32": 9}}]})",
     {{"data", seq({IOT_NVP("", seq({{"obj_id", i32(1)}, {"x1", f32(0.5f)}, {"obj_label", str("car")}})),
                    IOT_NVP("", seq({{"id", u32(9)}}))})}}},
    {"InferredWideInteger",
     R"({"data": {"big": 3000000000, "small": -2147483648}})",
     {{"data", seq({{"big", i64(3000000000LL)}, {"small", i32(std::numeric_limits<std::int32_t>::min())}})}}},
    {"EmptyList", R"({"data": []})", {{"data", seq({})}}},
};

INSTANTIATE_TEST_SUITE_P(Qxbus, JsonToPairs, ::testing::ValuesIn(kParseCases),
                         [](const auto &info) { return std::string(info.param.label); });

TEST(JsonToPairs, WithoutFieldDefinitionsEveryNameIsAccepted) {
    const auto pairs = qxbus::pairsFromJson(R"({"anything": 1})", {});
    EXPECT_EQ(pairs, qxbus::Pairs({{"anything", i32(1)}}));
}

TEST(PairsToJson, UnnamedEntriesBecomeArraysAndBytesAreSummarised) {
    iot::ByteSeq frame(20);
    for (std::size_t i = 0; i < frame.size(); ++i)
        frame[i] = static_cast<std::uint8_t>(i);
    const qxbus::Pairs pairs = {{"frame_id", u32(4294967295u)},
                                {"data", bytes(frame)},
                                {"boxes", seq({IOT_NVP("", seq({{"x1", f32(0.25f)}})), IOT_NVP("", seq({}))})},
                                {"meta", str("m")}};
    const auto json = qxbus::pairsToJson(pairs);
    EXPECT_EQ(json.dump(),
              R"({"frame_id":4294967295,"data":{"bytes":20,"head":"00 01 02 03 04 05 06 07 08 09 0a 0b 0c )"
              R"(0d 0e 0f ..."},"boxes":[{"x1":0.25},[]],"meta":"m"})");
}

TEST(FormatPairs, IndentsNestingLabelsEntriesAndEscapesText) {
    const qxbus::Pairs pairs = {{"stream_id", str("cam\x1b[2J")},
                                {"data", bytes({1, 2, 3, 4})},
                                {"boxes", seq({IOT_NVP("", seq({{"obj_id", i32(-7)}, {"x1", f32(0.1f)}}))})},
                                {"empty", bytes({})},
                                {"odd\nname", i32(1)}};
    EXPECT_EQ(qxbus::formatPairs(pairs), "stream_id (string) = \"cam\\u001b[2J\"\n"
                                         "data (byte_seq) = 4 bytes: 01 02 03 04\n"
                                         "boxes (nvp_seq), 1 entry\n"
                                         "  [0] (nvp_seq), 2 entries\n"
                                         "    obj_id (int32) = -7\n"
                                         "    x1 (float32) = 0.1\n"
                                         "empty (byte_seq) = 0 bytes\n"
                                         "\"odd\\nname\" (int32) = 1\n");
}

} // namespace
