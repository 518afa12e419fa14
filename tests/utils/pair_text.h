#pragma once
// Pairs as one line of text, "name:kind=value" each, a sequence's entries in
// braces: expected encodings are written in it and gtest prints pairs through it,
// so a mismatch names the field. Payloads over 12 bytes show as size and hash.

#include <functional>
#include <sstream>

#include "marlet/iot_value.h"

namespace com::quorixtech::iot {

// With setOnly, scalar pairs holding 0 or nothing are left out.
inline std::string pairText(const std::vector<IOT_NVP> &pairs, bool setOnly = false) {
    static const char *const kKinds[] = {":none=", ":i32=", ":u32=", ":i64=", ":f32=", ":s=", ":b=", ""};
    std::ostringstream out;
    for (const auto &p : pairs) {
        const IOT_VALUE &v = p.value();
        const IotKind k = v.kind();
        std::ostringstream value;
        if (k == IotKind::iotv_nvp_seq) value << '{' << pairText(v.iotv_nvp_seq(), setOnly) << '}';
        if (k == IotKind::iotv_int32) value << v.iotv_int32();
        if (k == IotKind::iotv_uint32) value << v.iotv_uint32();
        if (k == IotKind::iotv_int64) value << v.iotv_int64();
        if (k == IotKind::iotv_float32) value << v.iotv_float32();
        if (k == IotKind::iotv_string) value << v.iotv_string();
        const ByteSeq &b = k == IotKind::iotv_byte_seq ? v.iotv_byte_seq() : ByteSeq{};
        if (b.size() > 12) value << b.size() << "B#" << std::hash<std::string>{}(std::string(b.begin(), b.end()));
        for (std::size_t i = 0; i < b.size() && b.size() <= 12; ++i)
            value << (i > 0 ? "," : "") << static_cast<int>(b[i]);
        if (setOnly && (value.str().empty() || value.str() == "0")) continue;
        out << (out.tellp() > 0 ? " " : "") << p.name() << kKinds[static_cast<int>(k)] << value.str();
    }
    return out.str();
}

inline void PrintTo(const IOT_NVP &pair, std::ostream *out) { *out << pairText({pair}); }

} // namespace com::quorixtech::iot
