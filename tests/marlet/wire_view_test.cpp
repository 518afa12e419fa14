// Guards the reader of serialized samples, which sees network bytes before
// anything else: a header field misread in one of the forms a peer may send,
// and broken bytes that are not rejected as a DecodeError naming the fault.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "marlet/marlet.h"
#include "wire_view.h"

namespace {

using com::quorixtech::marlet::DecodeError;
using com::quorixtech::marlet::detail::parseWireSample;
using Bytes = std::vector<std::uint8_t>;
using testing::StrEq;
using testing::ThrowsMessage;

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

TEST(WireView, ReadsEveryEncapsulationAPeerMaySend) {
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
}

TEST(WireView, RejectsBrokenBytesNamingTheFault) {
    const Bytes good = serialize(1, {9, 9, 9, 9});
    const auto changed = [&](std::size_t at, std::uint8_t value) {
        Bytes b = good;
        b[at] = value;
        return b;
    };
    const std::pair<Bytes, const char *> cases[] = {
        {Bytes(good.begin(), good.begin() + 3), "serialized bus sample shorter than its header"},
        {{0x00, 0x08, 0, 0, 0, 0}, "serialized bus sample shorter than its header"},
        {changed(1, 5), "serialized bus sample: unknown encapsulation 5"},
        {changed(4 + 4 + 7, 'x'), "serialized bus sample: bad sourceId at offset 4"}, // no terminator
        {changed(4, 0), "serialized bus sample: bad sourceId at offset 4"},           // length zero
        {Bytes(good.begin(), good.begin() + 4 + 60), "serialized bus sample: bad header field at offset 56"},
        {Bytes(good.begin(), good.end() - 1), "serialized bus sample: bad payload at offset 76"},
    };
    for (const auto &[bytes, message] : cases)
        EXPECT_THAT([&] { parseWireSample(bytes.data(), bytes.size()); }, ThrowsMessage<DecodeError>(StrEq(message)));
}

} // namespace
