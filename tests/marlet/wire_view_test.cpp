// The serialized-sample reader sees bytes straight from the network, before
// anything else has looked at them.

#include <gtest/gtest.h>

#include "marlet/marlet.h"
#include "wire_view.h"

namespace {

using com::quorixtech::marlet::DecodeError;
using com::quorixtech::marlet::detail::parseWireSample;
using Bytes = std::vector<std::uint8_t>;

// Serializes the sample type by hand in one of the forms a peer may send.
struct CdrWriter {
    bool le;
    std::size_t maxAlign;
    Bytes body;

    void align(std::size_t a) {
        while (body.size() % std::min(a, maxAlign))
            body.push_back(0);
    }
    void integer(std::uint64_t v, std::size_t width) {
        align(width);
        for (std::size_t i = 0; i < width; ++i)
            body.push_back(static_cast<std::uint8_t>(v >> (8 * (le ? i : width - 1 - i))));
    }
    void string(const std::string &s) {
        integer(s.size() + 1, 4);
        body.insert(body.end(), s.begin(), s.end());
        body.push_back(0);
    }
    Bytes sample(std::uint16_t encapsulation, const Bytes &payload) {
        string("thing-1");
        string("");
        string("session-1");
        string("ns:Group");
        integer(0x0102030405060708ull, 8);
        integer(static_cast<std::uint64_t>(-5), 8);
        integer(payload.size(), 4);
        body.insert(body.end(), payload.begin(), payload.end());
        Bytes out = {static_cast<std::uint8_t>(encapsulation >> 8), static_cast<std::uint8_t>(encapsulation), 0, 0};
        out.insert(out.end(), body.begin(), body.end());
        return out;
    }
};

TEST(WireView, ReadsEveryEncapsulationAPeerMaySend) {
    const Bytes payload = {1, 2, 3};
    const struct {
        const char *label;
        std::uint16_t encapsulation;
        bool le;
        std::size_t maxAlign;
    } cases[] = {
        {"XCDR1 little-endian", 0x0001, true, 8},
        {"XCDR1 big-endian", 0x0000, false, 8},
        {"XCDR2 little-endian", 0x0007, true, 4},
        {"XCDR2 big-endian", 0x0006, false, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.label);
        CdrWriter w{c.le, c.maxAlign, {}};
        const Bytes bytes = w.sample(c.encapsulation, payload);
        const auto v = parseWireSample(bytes.data(), bytes.size());
        EXPECT_EQ(v.sourceId, "thing-1");
        EXPECT_EQ(v.flowId, "");
        EXPECT_EQ(v.sessionId, "session-1");
        EXPECT_EQ(v.tagGroup, "ns:Group");
        EXPECT_EQ(v.sequenceNumber, 0x0102030405060708ull);
        EXPECT_EQ(v.sourceTime, -5);
        ASSERT_EQ(v.payloadSize, payload.size());
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), v.payload));
    }
}

TEST(WireView, RejectsEveryTruncationAndBrokenFields) {
    CdrWriter w{true, 8, {}};
    const Bytes good = w.sample(0x0001, {9, 9, 9, 9});
    for (std::size_t len = 0; len < good.size(); ++len) {
        EXPECT_THROW(parseWireSample(good.data(), len), DecodeError) << "length " << len;
    }

    Bytes unknownEncapsulation = good;
    unknownEncapsulation[1] = 0x05;
    Bytes missingNul = good;
    missingNul[4 + 4 + 7] = 'x'; // the terminator of "thing-1"
    Bytes zeroLengthString = good;
    zeroLengthString[4] = 0;
    const std::pair<const char *, Bytes> broken[] = {
        {"unknown encapsulation", unknownEncapsulation},
        {"string without terminator", missingNul},
        {"string of length zero", zeroLengthString},
    };
    for (const auto &[label, bytes] : broken) {
        EXPECT_THROW(parseWireSample(bytes.data(), bytes.size()), DecodeError) << label;
    }
}

} // namespace
