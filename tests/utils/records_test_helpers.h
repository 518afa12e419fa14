#pragma once
// Shared by the record tests: building pair sequences by hand (as a peer
// would send them) and checking encoder output against expected wire tables.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "marlet/iot_value.h"

namespace rectest {

using com::quorixtech::iot::IOT_NVP;
using com::quorixtech::iot::IOT_VALUE;
using com::quorixtech::iot::IotKind;
using Pairs = std::vector<IOT_NVP>;

struct WireField {
    const char *name;
    IotKind kind;
};

inline IOT_NVP pairStr(const std::string &name, const std::string &v) {
    IOT_VALUE x;
    x.iotv_string(v);
    return IOT_NVP(name, x);
}
inline IOT_NVP pairU32(const std::string &name, std::uint32_t v) {
    IOT_VALUE x;
    x.iotv_uint32(v);
    return IOT_NVP(name, x);
}
inline IOT_NVP pairI32(const std::string &name, std::int32_t v) {
    IOT_VALUE x;
    x.iotv_int32(v);
    return IOT_NVP(name, x);
}
inline IOT_NVP pairI64(const std::string &name, std::int64_t v) {
    IOT_VALUE x;
    x.iotv_int64(v);
    return IOT_NVP(name, x);
}
inline IOT_NVP pairF32(const std::string &name, float v) {
    IOT_VALUE x;
    x.iotv_float32(v);
    return IOT_NVP(name, x);
}
inline IOT_NVP pairBytes(const std::string &name, std::vector<std::uint8_t> v) {
    IOT_VALUE x;
    x.iotv_byte_seq(std::move(v));
    return IOT_NVP(name, x);
}
inline IOT_NVP pairSeq(const std::string &name, Pairs v) {
    IOT_VALUE x;
    x.iotv_nvp_seq(std::move(v));
    return IOT_NVP(name, x);
}

// Names, kinds and order must match exactly; the trace names the position.
inline void expectWire(const Pairs &pairs, const std::vector<WireField> &expected, const std::string &what) {
    ASSERT_EQ(pairs.size(), expected.size()) << what;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(pairs[i].name(), expected[i].name) << what << " pair #" << i + 1;
        EXPECT_EQ(pairs[i].value().kind(), expected[i].kind) << what << " pair " << expected[i].name;
    }
}

// A list pair: unnamed entries whose values are each a pair sequence, every
// one of the given shape.
inline void expectListOf(const IOT_NVP &list, std::size_t count, const std::vector<WireField> &element,
                         const std::string &what) {
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
