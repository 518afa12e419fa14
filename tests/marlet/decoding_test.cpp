// Guards what reads the bytes peers send: the pair codec's byte layout drifting
// from what peers in other languages read, values that change on the way
// (extremes, float bit patterns, nesting, empty names), a sample header misread
// in one of the serialized forms a peer may send, and broken bytes not rejected
// as a DecodeError naming the fault (and, for pairs, its offset).

#include <cmath>
#include <limits>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "marlet/pair_codec.h"
#include "pair_builders.h"
#include "wire_view.h"

namespace {

using namespace com::quorixtech;
using namespace pairtest;
using marlet::DecodeError;
using marlet::detail::parseWireSample;
using testing::StrEq;
using testing::ThrowsMessage;
using Bytes = std::vector<std::uint8_t>;
namespace codec = marlet::codec;

// "b7 01 00" as bytes, followed by `fill` bytes 0x5a.
Bytes hex(const char *text, std::size_t fill = 0) {
    Bytes out;
    std::istringstream in(text);
    for (unsigned byte; in >> std::hex >> byte;)
        out.push_back(static_cast<std::uint8_t>(byte));
    out.resize(out.size() + fill, 0x5a);
    return out;
}

std::vector<IOT_NVP> nested(std::size_t depth) {
    std::vector<IOT_NVP> inner{i32("leaf", 7)};
    for (std::size_t d = 0; d < depth; ++d)
        inner = {seq("", inner)};
    return inner;
}

// Peers in other languages are written against this layout: magic b7, version
// 01, then a LEB128 pair count and per pair a LEB128-length name, a kind byte
// and the value (numbers little-endian, texts and bytes LEB128-length first).
// One row per form and per fault; random and mutated input is the fuzz targets' job.
TEST(PairCodec, EncodesTheDocumentedBytesAndRejectsMalformedOnesNamingFaultAndOffset) {
    const Bytes deepest = codec::encode(nested(codec::kMaxDepth));
    Bytes tooDeep = hex("b7 01 01 00 07"); // one more unnamed level around all of it
    tooDeep.insert(tooDeep.end(), deepest.begin() + 2, deepest.end());
    const struct {
        Bytes wire;
        std::vector<IOT_NVP> pairs;
        const char *error = nullptr;
    } cases[] = {
        {hex("b7 01 00"), {}},
        {hex("b7 01 02 01 61 01 fe ff ff ff 00 01 00 00 00 80"), {i32("a", -2), i32("", INT32_MIN)}},
        {hex("b7 01 02 00 02 ff ff ff ff 00 03 00 00 00 00 00 00 00 80"), {u32("", UINT32_MAX), i64("", INT64_MIN)}},
        {hex("b7 01 03 00 04 00 00 00 80 00 04 00 00 c0 7f 00 04 01 00 00 00"),
         {f32("", -0.0f), f32("", std::numeric_limits<float>::quiet_NaN()), f32("", 1e-45f)}}, // -0, NaN, denormal
        {hex("b7 01 01 03 6e c3 a4 05 03 61 00 62"), {str("n\xc3\xa4", std::string("a\0b", 3))}},
        {hex("b7 01 03 00 06 00 00 00 00 07 00"), {bytes("", {}), IOT_NVP("", IOT_VALUE()), seq("", {})}},
        {hex("b7 01 01 01 73 07 01 00 01 01 00 00 00"), {seq("s", {i32("", 1)})}},
        {hex("b7 01 01 00 06 81 01", 129), {bytes("", Bytes(129, 0x5a))}}, // a two-byte length
        {deepest, nested(codec::kMaxDepth)},
        {tooDeep, {}, "nesting deeper than 32 at offset 101"},
        {{}, {}, "truncated header at offset 0"},
        {hex("00 01 00"), {}, "bad magic byte 0 at offset 0"},
        {hex("b7 02 00"), {}, "unsupported format version 2 at offset 1"},
        {hex("b7 01"), {}, "truncated pair count at offset 2"},
        {hex("b7 01 03 00 00 00 00"), {}, "pair count 3 larger than the 4 bytes left can hold at offset 2"},
        {hex("b7 01 ff ff ff ff ff ff ff ff ff 7f"), {}, "oversized pair count at offset 2"},
        {hex("b7 01 01 05 61 00"), {}, "truncated name (length 5, 2 bytes left) at offset 3"},
        {hex("b7 01 01 00 08"), {}, "unknown kind 8 at offset 4"},
        {hex("b7 01 01 00 03 01 02 03"), {}, "truncated iotv_int64 at offset 5"},
        {hex("b7 01 01 00 05 ff ff 03"), {}, "truncated string (length 65535, 0 bytes left) at offset 5"},
        {hex("b7 01 01 00 06 02 00"), {}, "truncated byte sequence (length 2, 1 bytes left) at offset 5"},
        {hex("b7 01 00 00"), {}, "1 trailing bytes at offset 3"},
    };
    for (const auto &[wire, pairs, error] : cases) {
        SCOPED_TRACE(error ? error : testing::PrintToString(wire));
        if (error) {
            EXPECT_THAT([&] { codec::decode(wire); }, ThrowsMessage<DecodeError>(StrEq(error)));
            continue;
        }
        EXPECT_EQ(codec::encode(pairs), wire);
        EXPECT_EQ(codec::encodedSize(pairs), wire.size());
        EXPECT_EQ(codec::encode(codec::decode(wire)), wire); // as bytes: NaN never equals itself, and -0 equals +0
    }
    // What no receiver would accept is refused on the way out; a value read as another kind names both.
    EXPECT_THROW(codec::encode(nested(codec::kMaxDepth + 1)), marlet::MarletError);
    EXPECT_THAT(
        [] { (void)str("text").iotv_uint32(); },
        ThrowsMessage<iot::IotKindError>(StrEq("IOT_VALUE kind mismatch: expected iotv_uint32, actual iotv_string")));
}

// Serializes the sample type by hand the way a peer may: encapsulation 0/1 is
// version 1 big/little-endian, 6/7 version 2, 8/9 version 2 behind a length.
Bytes serialize(std::uint8_t encapsulation, const Bytes &payload) {
    Bytes out = {0, encapsulation, 0, 0};
    if (encapsulation >= 8) out.insert(out.end(), 4, 0); // the length, which the reader skips
    const std::size_t body = out.size(), maxAlign = encapsulation < 2 ? 8 : 4;
    const auto integer = [&](std::uint64_t v, std::size_t width) {
        while ((out.size() - body) % std::min(width, maxAlign))
            out.push_back(0);
        for (std::size_t i = 0; i < width; ++i)
            out.push_back(static_cast<std::uint8_t>(v >> (8 * (encapsulation % 2 ? i : width - 1 - i))));
    };
    for (const std::string s : {"thing-1", "", "session-1", "ns:Group"}) {
        integer(s.size() + 1, 4);
        out.insert(out.end(), s.c_str(), s.c_str() + s.size() + 1);
    }
    integer(0x0102030405060708ull, 8);
    integer(static_cast<std::uint64_t>(-5), 8);
    integer(payload.size(), 4);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

TEST(WireView, ReadsEveryFormAPeerMaySendAndRejectsBrokenBytesNamingTheFault) {
    const Bytes payload = {1, 2, 3};
    for (std::uint8_t encapsulation : {0, 1, 6, 7, 8, 9}) {
        SCOPED_TRACE(int{encapsulation});
        const Bytes bytes = serialize(encapsulation, payload);
        const auto v = parseWireSample(bytes.data(), bytes.size());
        EXPECT_EQ(v.sourceId + "|" + v.flowId + "|" + v.sessionId + "|" + v.tagGroup, "thing-1||session-1|ns:Group");
        EXPECT_EQ(v.sequenceNumber, 0x0102030405060708ull);
        EXPECT_EQ(v.sourceTime, -5);
        EXPECT_EQ(Bytes(v.payload, v.payload + v.payloadSize), payload);
    }
    const Bytes good = serialize(1, {9, 9, 9, 9});
    Bytes unknownForm = good, noTerminator = good, zeroLength = good;
    unknownForm[1] = 5;
    noTerminator[4 + 4 + 7] = 'x'; // where the sourceId's NUL belongs
    zeroLength[4] = 0;
    const std::pair<Bytes, const char *> cases[] = {
        {Bytes(good.begin(), good.begin() + 3), "serialized bus sample shorter than its header"},
        {{0x00, 0x08, 0, 0, 0, 0}, "serialized bus sample shorter than its header"},
        {unknownForm, "serialized bus sample: unknown encapsulation 5"},
        {noTerminator, "serialized bus sample: bad sourceId at offset 4"},
        {zeroLength, "serialized bus sample: bad sourceId at offset 4"},
        {Bytes(good.begin(), good.begin() + 4 + 60), "serialized bus sample: bad header field at offset 56"},
        {Bytes(good.begin(), good.end() - 1), "serialized bus sample: bad payload at offset 76"},
    };
    for (const auto &[bytes, message] : cases)
        EXPECT_THAT([&] { parseWireSample(bytes.data(), bytes.size()); }, ThrowsMessage<DecodeError>(StrEq(message)));
}

// What this library's writers send: the peer form 1 byte for byte (padded to
// a multiple of 4, the padding counted in the header), whatever the lengths
// that move the 8-byte fields' alignment and the padding.
TEST(WireView, WrittenSamplesAreTheFormPeersReadForEveryAlignment) {
    const std::string flow, session = "session-1", group = "ns:Group";
    for (std::size_t idLength = 0; idLength < 8; ++idLength) {
        for (std::size_t payloadSize = 0; payloadSize < 4; ++payloadSize) {
            SCOPED_TRACE(testing::Message() << "id of " << idLength << ", payload of " << payloadSize);
            const std::string id = idLength == 7 ? "thing-1" : std::string(idLength, 'i');
            const marlet::detail::WireHeader header{id, flow, session, group, 0x0102030405060708ull, -5};
            Bytes bytes(marlet::detail::wireSampleSize(header, payloadSize), 0xEE);
            std::uint8_t *payload = marlet::detail::writeWireSample(header, payloadSize, bytes.data());
            for (std::size_t i = 0; i < payloadSize; ++i)
                payload[i] = static_cast<std::uint8_t>(i + 1);
            ASSERT_EQ(bytes.size() % 4, 0u);
            const std::size_t padding = bytes[3];
            const auto v = parseWireSample(bytes.data(), bytes.size());
            EXPECT_EQ(v.sourceId + "|" + v.flowId + "|" + v.sessionId + "|" + v.tagGroup, id + "||session-1|ns:Group");
            EXPECT_EQ(v.sequenceNumber, 0x0102030405060708ull);
            EXPECT_EQ(v.sourceTime, -5);
            EXPECT_EQ(v.payload, payload);
            EXPECT_EQ(v.payloadSize + padding, static_cast<std::size_t>(bytes.data() + bytes.size() - payload));
            if (idLength == 7) { // serialize()'s strings: its form byte for byte, but for the padding
                const Bytes peer = serialize(1, Bytes(payload, payload + payloadSize));
                EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.end() - padding), Bytes(peer.begin() + 4, peer.end()));
            }
        }
    }
}

} // namespace
