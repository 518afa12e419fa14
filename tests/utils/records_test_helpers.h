#pragma once
// Shared by the record and session tests: the pair builders (to write pair
// sequences by hand, as a peer would send them), the wire tables peers know,
// and a readable print of pairs so that a mismatch names the field that broke.

#include <cstring>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "marlet/iot_value.h"
#include "pair_builders.h"

namespace com::quorixtech::iot {

// Found by gtest through ADL. Floats are printed bit for bit and payloads as
// size and hash, so full-HD frames stay readable.
inline void PrintTo(const IOT_NVP &pair, std::ostream *out) {
    const auto &v = pair.value();
    *out << pair.name() << ":" << kindName(v.kind()) << "=";
    switch (v.kind()) {
    case IotKind::iotv_int32:
        *out << v.iotv_int32();
        break;
    case IotKind::iotv_uint32:
        *out << v.iotv_uint32();
        break;
    case IotKind::iotv_int64:
        *out << v.iotv_int64();
        break;
    case IotKind::iotv_float32: {
        const float f = v.iotv_float32();
        std::uint32_t bits = 0;
        std::memcpy(&bits, &f, sizeof bits);
        *out << f << "(0x" << std::hex << bits << std::dec << ")";
        break;
    }
    case IotKind::iotv_string:
        *out << '"' << v.iotv_string() << '"';
        break;
    case IotKind::iotv_byte_seq: {
        const auto &bytes = v.iotv_byte_seq();
        *out << bytes.size() << " bytes#" << std::hash<std::string>{}(std::string(bytes.begin(), bytes.end()));
        break;
    }
    case IotKind::iotv_nvp_seq:
        *out << "{";
        for (const auto &inner : v.iotv_nvp_seq()) {
            PrintTo(inner, out);
            *out << "; ";
        }
        *out << "}";
        break;
    case IotKind::none:
        break;
    }
}

} // namespace com::quorixtech::iot

namespace rectest {

using namespace pairtest;
using com::quorixtech::iot::IOT_NVP;
using com::quorixtech::iot::IOT_VALUE;
using com::quorixtech::iot::IotKind;
using Pairs = std::vector<IOT_NVP>;

struct WireField {
    const char *name;
    IotKind kind;
};
using Wire = std::vector<WireField>;

constexpr auto S = IotKind::iotv_string;
constexpr auto U32 = IotKind::iotv_uint32;
constexpr auto I32 = IotKind::iotv_int32;
constexpr auto I64 = IotKind::iotv_int64;
constexpr auto F32 = IotKind::iotv_float32;
constexpr auto BYTES = IotKind::iotv_byte_seq;
constexpr auto SEQ = IotKind::iotv_nvp_seq;

// Wire tables as peers know them; written out here, not taken from the
// encoders. The combined record reuses the frame, device and mask layouts.
const Wire kFrameWire = {{"stream_id", S}, {"frame_id", U32},  {"timestamp", I64}, {"data", BYTES},
                         {"width", U32},   {"height", U32},    {"channels", U32},  {"size", U32},
                         {"format", S},    {"compression", S}, {"framerate", F32}};
const Wire kDeviceWire = {{"stream_id", S},    {"mac_address", S}, {"ip_address", S}, {"port", I32},     {"uri", S},
                          {"manufacturer", S}, {"model", S},       {"serial", S},     {"fw_version", S}, {"dev_id", S},
                          {"status", S},       {"kind", S},        {"protocol", S}};
const Wire kMaskWire = {{"id", U32},       {"repeat", U32}, {"width", U32}, {"height", U32},      {"size", U32},
                        {"channels", U32}, {"color", U32},  {"label", S},   {"probability", F32}, {"data", BYTES}};

inline Wire operator+(Wire a, const Wire &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Names, kinds and order must match exactly; the trace names the position.
inline void expectWire(const Pairs &pairs, const Wire &expected, const std::string &what) {
    ASSERT_EQ(pairs.size(), expected.size()) << what;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(pairs[i].name(), expected[i].name) << what << " pair #" << i + 1;
        EXPECT_EQ(pairs[i].value().kind(), expected[i].kind) << what << " pair " << expected[i].name;
    }
}

// A list pair: unnamed entries whose values are each a pair sequence, every
// one of the given shape.
inline void expectListOf(const IOT_NVP &list, std::size_t count, const Wire &element, const std::string &what) {
    ASSERT_EQ(list.value().kind(), IotKind::iotv_nvp_seq) << what;
    const auto &entries = list.value().iotv_nvp_seq();
    ASSERT_EQ(entries.size(), count) << what;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].name(), "") << what << " entry " << i;
        ASSERT_EQ(entries[i].value().kind(), IotKind::iotv_nvp_seq) << what << " entry " << i;
        expectWire(entries[i].value().iotv_nvp_seq(), element, what + " entry " + std::to_string(i));
    }
}

inline const IOT_NVP &pairNamed(const Pairs &pairs, const std::string &name) {
    for (const auto &p : pairs)
        if (p.name() == name) return p;
    throw std::runtime_error("no pair named " + name);
}

} // namespace rectest
