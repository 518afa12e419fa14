#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "marlet/pair_codec.h"
#include "pair_builders.h"

namespace {

using namespace com::quorixtech;
using namespace pairtest;
using iot::IotKind;
using marlet::DecodeError;
namespace codec = marlet::codec;
using Bytes = std::vector<std::uint8_t>;

std::vector<IOT_NVP> nested(std::size_t depth) {
    std::vector<IOT_NVP> inner{i32("leaf", 7)};
    for (std::size_t d = 0; d < depth; ++d)
        inner = {seq("", inner)};
    return inner;
}

// A record shaped like a detection result: every kind, nesting, empty names.
std::vector<IOT_NVP> richRecord() {
    return {str("engine_id", "eng-1"),
            u32("frame_id", 42),
            i64("timestamp", 20240102030405006),
            bytes("data", {1, 2, 3, 0, 255}),
            seq("data", {seq("", {i32("obj_id", -3), str("obj_label", "person"), f32("x1", 0.25f)}),
                         seq("", {i32("obj_id", 4), str("meta", "")})}),
            f32("framerate", 29.97f)};
}

struct RoundTripCase {
    const char *label;
    std::vector<IOT_NVP> pairs;
};

TEST(PairCodec, RoundTripsEveryKindAndShape) {
    const std::vector<RoundTripCase> cases = {
        {"empty list", {}},
        {"int32 extremes", {i32("min", INT32_MIN), i32("max", INT32_MAX), i32("zero", 0)}},
        {"uint32 extremes", {u32("max", UINT32_MAX), u32("zero", 0)}},
        {"int64 extremes", {i64("min", INT64_MIN), i64("max", INT64_MAX), i64("minus one", -1)}},
        {"float32 specials",
         {f32("lowest", std::numeric_limits<float>::lowest()), f32("denorm", std::numeric_limits<float>::denorm_min()),
          f32("inf", std::numeric_limits<float>::infinity()), f32("neg", -1.5f)}},
        {"strings", {str("", ""), str("utf8 n\xc3\xa4me", "v\xc3\xa4lue"), str("nul", std::string("a\0b", 3))}},
        {"byte sequences", {bytes("empty", {}), bytes("one", {0}), bytes("long", Bytes(300, 0xab))}},
        {"nvp sequences", {seq("empty", {}), seq("", {seq("", {})}), seq("list", {i32("", 1), i32("", 2)})}},
        {"unset value", {IOT_NVP("unset", IOT_VALUE())}},
        {"long name", {i32(std::string(200, 'n'), 1)}},
        {"deepest nesting", nested(codec::kMaxDepth)},
        {"rich record", richRecord()},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.label);
        const Bytes encoded = codec::encode(c.pairs);
        EXPECT_EQ(encoded.size(), codec::encodedSize(c.pairs));
        EXPECT_EQ(codec::decode(encoded), c.pairs);
    }
}

TEST(PairCodec, KeepsNegativeZeroAndNanBitPatterns) {
    const float values[] = {-0.0f, std::numeric_limits<float>::quiet_NaN()};
    for (float v : values) {
        const auto decoded = codec::decode(codec::encode({f32("f", v)}));
        const float back = decoded.at(0).value().iotv_float32();
        EXPECT_EQ(0, std::memcmp(&back, &v, sizeof v));
    }
}

// Pins the documented layout: peers in other languages are written against it.
TEST(PairCodec, EncodesTheDocumentedBytes) {
    const Bytes expected = {0xB7, 0x01,                               // magic, version
                            0x02,                                     // two pairs
                            0x01, 'a',  0x01, 0xfe, 0xff, 0xff, 0xff, // "a" int32 -2
                            0x00, 0x07, 0x01,                         // "" nvp_seq of one pair
                            0x01, 'b',  0x06, 0x81, 0x01};            // "b" byte_seq, LEB128 length 129 ...
    Bytes payload(129, 0x5a);
    const Bytes encoded = codec::encode({i32("a", -2), seq("", {bytes("b", payload)})});
    ASSERT_EQ(encoded.size(), expected.size() + payload.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), encoded.begin()));
    EXPECT_TRUE(std::all_of(encoded.begin() + expected.size(), encoded.end(), [](auto b) { return b == 0x5a; }));
}

TEST(PairCodec, RefusesToEncodeWhatNoReceiverAccepts) {
    EXPECT_THROW(codec::encodedSize(nested(codec::kMaxDepth + 1)), marlet::MarletError);
    const auto pairs = richRecord();
    Bytes small(codec::encodedSize(pairs) - 1);
    EXPECT_THROW(codec::encodeInto(pairs, small.data(), small.size()), marlet::MarletError);
    Bytes large(codec::encodedSize(pairs) + 1);
    EXPECT_THROW(codec::encodeInto(pairs, large.data(), large.size()), marlet::MarletError);
}

void expectDecodeError(const Bytes &input, const std::string &fragment) {
    try {
        codec::decode(input);
        ADD_FAILURE() << "decoded without error; expected \"" << fragment << "\"";
    } catch (const DecodeError &e) {
        EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
    }
}

TEST(PairCodec, RejectsMalformedInputWithAClearMessage) {
    Bytes tooDeep = codec::encode(nested(codec::kMaxDepth));
    // One more level: wrap the whole list in another unnamed nvp_seq by hand.
    Bytes deeper = {0xB7, 0x01, 0x01, 0x00, 0x07};
    deeper.insert(deeper.end(), tooDeep.begin() + 2, tooDeep.end());

    const struct {
        const char *label;
        Bytes input;
        const char *fragment;
    } cases[] = {
        {"empty", {}, "truncated header at offset 0"},
        {"bad magic", {0x00, 0x01, 0x00}, "bad magic byte 0 at offset 0"},
        {"bad version", {0xB7, 0x02, 0x00}, "unsupported format version 2 at offset 1"},
        {"no count", {0xB7, 0x01}, "truncated pair count at offset 2"},
        {"huge count", {0xB7, 0x01, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x10}, "pair count"},
        {"count beyond bytes", {0xB7, 0x01, 0x03, 0x00, 0x00, 0x00, 0x00}, "larger than the 4 bytes left"},
        {"oversized leb128", {0xB7, 0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}, "oversized"},
        {"name past end", {0xB7, 0x01, 0x01, 0x05, 'a', 0x00}, "truncated name (length 5, 2 bytes left) at offset 3"},
        {"unknown kind", {0xB7, 0x01, 0x01, 0x00, 0x08}, "unknown kind 8 at offset 4"},
        {"kind 255", {0xB7, 0x01, 0x01, 0x00, 0xff}, "unknown kind 255"},
        {"short int64", {0xB7, 0x01, 0x01, 0x00, 0x03, 1, 2, 3}, "truncated iotv_int64 at offset 5"},
        {"huge string", {0xB7, 0x01, 0x01, 0x00, 0x05, 0xff, 0xff, 0xff, 0xff, 0x0f}, "truncated string"},
        {"huge byte seq", {0xB7, 0x01, 0x01, 0x00, 0x06, 0xff, 0xff, 0x03, 0x00}, "truncated byte sequence"},
        {"trailing bytes", {0xB7, 0x01, 0x00, 0x00}, "1 trailing bytes at offset 3"},
        {"too deep", deeper, "nesting deeper than 32"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.label);
        expectDecodeError(c.input, c.fragment);
    }
}

TEST(PairCodec, EveryTruncationOfAValidEncodingIsAnError) {
    const Bytes full = codec::encode(richRecord());
    for (std::size_t len = 0; len < full.size(); ++len) {
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(len));
        EXPECT_THROW(codec::decode(cut), DecodeError) << "length " << len;
    }
}

// Garbage and mutated encodings either decode or raise DecodeError; nothing else
// may escape and nothing may crash (run under the sanitizers to see more).
TEST(PairCodec, GarbageAndMutationsOnlyEverRaiseDecodeError) {
    std::mt19937 rng(20261122);
    const Bytes valid = codec::encode(richRecord());
    std::size_t decodedOk = 0;
    std::size_t rejected = 0;
    for (int round = 0; round < 20000; ++round) {
        Bytes input;
        if (round % 2 == 0) {
            input.resize(rng() % 64);
            for (auto &b : input)
                b = static_cast<std::uint8_t>(rng());
            // Half the garbage gets a valid header so the body parser is exercised.
            if (input.size() >= 2 && round % 4 == 0) input[0] = codec::kMagic, input[1] = codec::kVersion;
        } else {
            input = valid;
            const int flips = 1 + static_cast<int>(rng() % 4);
            for (int f = 0; f < flips; ++f)
                input[rng() % input.size()] = static_cast<std::uint8_t>(rng());
        }
        try {
            codec::decode(input);
            ++decodedOk;
        } catch (const DecodeError &) {
            ++rejected;
        } catch (const std::exception &e) {
            FAIL() << "round " << round << " raised a non-decode error: " << e.what();
        }
    }
    EXPECT_GT(rejected, 0u);
    EXPECT_GT(decodedOk, 0u); // mutations inside string bytes still decode
}

TEST(IotValue, KindErrorNamesExpectedAndActualKinds) {
    IOT_VALUE v;
    v.iotv_string("text");
    try {
        (void)v.iotv_uint32();
        FAIL() << "no IotKindError";
    } catch (const iot::IotKindError &e) {
        EXPECT_EQ(e.expected(), IotKind::iotv_uint32);
        EXPECT_EQ(e.actual(), IotKind::iotv_string);
        EXPECT_NE(std::string(e.what()).find("expected iotv_uint32"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("actual iotv_string"), std::string::npos) << e.what();
    }
}

} // namespace
