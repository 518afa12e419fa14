// Guards the pair codec every sample goes through: values that change on the
// way (extremes, float bit patterns, nesting, empty names), a byte layout that
// drifts from what peers in other languages read, and malformed payloads that
// are not rejected with the message naming the fault and its offset.

#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "marlet/pair_codec.h"
#include "pair_builders.h"

namespace {

using namespace com::quorixtech;
using namespace pairtest;
using testing::StrEq;
using testing::ThrowsMessage;
using Bytes = std::vector<std::uint8_t>;
namespace codec = marlet::codec;

std::vector<IOT_NVP> nested(std::size_t depth) {
    std::vector<IOT_NVP> inner{i32("leaf", 7)};
    for (std::size_t d = 0; d < depth; ++d)
        inner = {seq("", inner)};
    return inner;
}

TEST(PairCodec, RoundTripsEveryKindAndShape) {
    const std::pair<const char *, std::vector<IOT_NVP>> cases[] = {
        {"empty list", {}},
        {"int32", {i32("min", INT32_MIN), i32("max", INT32_MAX), i32("zero", 0)}},
        {"uint32", {u32("max", UINT32_MAX), u32("zero", 0)}},
        {"int64", {i64("min", INT64_MIN), i64("max", INT64_MAX), i64("minus one", -1)}},
        {"float32", {f32("lowest", std::numeric_limits<float>::lowest()), f32("denorm", 1e-45f), f32("inf", INFINITY)}},
        {"float bit patterns", {f32("negative zero", -0.0f), f32("nan", std::numeric_limits<float>::quiet_NaN())}},
        {"strings", {str("", ""), str("utf8 n\xc3\xa4me", "v\xc3\xa4lue"), str("nul", std::string("a\0b", 3))}},
        {"byte sequences", {bytes("empty", {}), bytes("one", {0}), bytes("long", Bytes(300, 0xab))}},
        {"nvp sequences", {seq("empty", {}), seq("", {seq("", {})}), seq("list", {i32("", 1), str("", "x")})}},
        {"unset value and long name", {IOT_NVP("unset", IOT_VALUE()), i32(std::string(200, 'n'), 1)}},
        {"deepest nesting", nested(codec::kMaxDepth)},
    };
    for (const auto &[label, pairs] : cases) {
        SCOPED_TRACE(label);
        const Bytes encoded = codec::encode(pairs);
        EXPECT_EQ(encoded.size(), codec::encodedSize(pairs));
        // Compared as bytes too: NaN never equals itself, and -0 equals +0.
        EXPECT_EQ(codec::encode(codec::decode(encoded)), encoded);
        if (label != std::string("float bit patterns")) EXPECT_EQ(codec::decode(encoded), pairs);
    }
    // What no receiver would accept is refused on the way out.
    EXPECT_THROW(codec::encode(nested(codec::kMaxDepth + 1)), marlet::MarletError);
}

// Peers in other languages are written against this layout.
TEST(PairCodec, EncodesTheDocumentedBytes) {
    const Bytes head = {0xB7, 0x01,                               // magic, version
                        0x02,                                     // two pairs
                        0x01, 'a',  0x01, 0xfe, 0xff, 0xff, 0xff, // "a" int32 -2, little-endian
                        0x00, 0x07, 0x01,                         // "" nvp_seq of one pair
                        0x01, 'b',  0x06, 0x81, 0x01};            // "b" byte_seq, LEB128 length 129 ...
    Bytes expected = head;
    expected.resize(head.size() + 129, 0x5a);
    EXPECT_EQ(codec::encode({i32("a", -2), seq("", {bytes("b", Bytes(129, 0x5a))})}), expected);
}

// One row per kind of fault; random and mutated input is the fuzz targets' job.
TEST(PairCodec, RejectsMalformedInputNamingTheFaultAndItsOffset) {
    const Bytes deepest = codec::encode(nested(codec::kMaxDepth));
    Bytes tooDeep = {0xB7, 0x01, 0x01, 0x00, 0x07}; // one more unnamed level around all of it
    tooDeep.insert(tooDeep.end(), deepest.begin() + 2, deepest.end());
    const std::pair<Bytes, const char *> cases[] = {
        {{}, "truncated header at offset 0"},
        {{0x00, 0x01, 0x00}, "bad magic byte 0 at offset 0"},
        {{0xB7, 0x02, 0x00}, "unsupported format version 2 at offset 1"},
        {{0xB7, 0x01}, "truncated pair count at offset 2"},
        {{0xB7, 0x01, 0x03, 0x00, 0x00, 0x00, 0x00}, "pair count 3 larger than the 4 bytes left can hold at offset 2"},
        {{0xB7, 0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}, "oversized pair count at offset 2"},
        {{0xB7, 0x01, 0x01, 0x05, 'a', 0x00}, "truncated name (length 5, 2 bytes left) at offset 3"},
        {{0xB7, 0x01, 0x01, 0x00, 0x08}, "unknown kind 8 at offset 4"},
        {{0xB7, 0x01, 0x01, 0x00, 0x03, 1, 2, 3}, "truncated iotv_int64 at offset 5"},
        {{0xB7, 0x01, 0x01, 0x00, 0x05, 0xff, 0xff, 0x03}, "truncated string (length 65535, 0 bytes left) at offset 5"},
        {{0xB7, 0x01, 0x01, 0x00, 0x06, 0x02, 0x00}, "truncated byte sequence (length 2, 1 bytes left) at offset 5"},
        {{0xB7, 0x01, 0x00, 0x00}, "1 trailing bytes at offset 3"},
        {tooDeep, "nesting deeper than 32 at offset 101"},
    };
    for (const auto &[input, message] : cases)
        EXPECT_THAT([&] { codec::decode(input); }, ThrowsMessage<marlet::DecodeError>(StrEq(message)));
}

TEST(IotValue, ReadingTheWrongKindNamesBothKinds) {
    EXPECT_THAT(
        [] { (void)str("text").iotv_uint32(); },
        ThrowsMessage<iot::IotKindError>(StrEq("IOT_VALUE kind mismatch: expected iotv_uint32, actual iotv_string")));
}

} // namespace
