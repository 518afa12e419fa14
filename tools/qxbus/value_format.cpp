#include "value_format.h"

#include <charconv>
#include <sstream>

#include <nlohmann/json.hpp>

namespace qxbus {

namespace iot = com::quorixtech::iot;
using iot::IotKind;

namespace {

std::string quoted(const std::string &text) {
    // JSON escaping turns control characters into \uXXXX and bad UTF-8 into U+FFFD.
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Shortest text that reads back as the same float.
std::string floatText(float value) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

const char *shortKind(IotKind kind) {
    switch (kind) {
    case IotKind::iotv_int32:
        return "int32";
    case IotKind::iotv_uint32:
        return "uint32";
    case IotKind::iotv_int64:
        return "int64";
    case IotKind::iotv_float32:
        return "float32";
    case IotKind::iotv_string:
        return "string";
    case IotKind::iotv_byte_seq:
        return "byte_seq";
    case IotKind::iotv_nvp_seq:
        return "nvp_seq";
    case IotKind::none:
        break;
    }
    return "none";
}

} // namespace

std::string printable(const std::string &name) {
    for (const unsigned char c : name)
        if (c <= ' ' || c >= 0x7f || c == '"' || c == '\\') return quoted(name);
    return name;
}

std::string quotedText(const std::string &text) { return quoted(text); }

std::string hexHead(const iot::ByteSeq &bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < bytes.size() && i < kHeadBytes; ++i) {
        if (i) out += ' ';
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0xf];
    }
    if (bytes.size() > kHeadBytes) out += " ...";
    return out;
}

std::string formatPairs(const std::vector<iot::IOT_NVP> &pairs, int indent) {
    std::ostringstream out;
    const std::string pad(static_cast<std::size_t>(indent) * 2, ' ');
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        const auto &pair = pairs[i];
        const auto &value = pair.value();
        const std::string label = pair.name().empty() ? "[" + std::to_string(i) + "]" : printable(pair.name());
        out << pad << label << " (" << shortKind(value.kind()) << ")";
        switch (value.kind()) {
        case IotKind::iotv_int32:
            out << " = " << value.iotv_int32() << '\n';
            break;
        case IotKind::iotv_uint32:
            out << " = " << value.iotv_uint32() << '\n';
            break;
        case IotKind::iotv_int64:
            out << " = " << value.iotv_int64() << '\n';
            break;
        case IotKind::iotv_float32:
            out << " = " << floatText(value.iotv_float32()) << '\n';
            break;
        case IotKind::iotv_string:
            out << " = " << quoted(value.iotv_string()) << '\n';
            break;
        case IotKind::iotv_byte_seq: {
            const auto &bytes = value.iotv_byte_seq();
            out << " = " << bytes.size() << " bytes" << (bytes.empty() ? "" : ": " + hexHead(bytes)) << '\n';
            break;
        }
        case IotKind::iotv_nvp_seq: {
            const auto &nested = value.iotv_nvp_seq();
            out << ", " << nested.size() << (nested.size() == 1 ? " entry" : " entries") << '\n';
            out << formatPairs(nested, indent + 1);
            break;
        }
        case IotKind::none:
            out << '\n';
            break;
        }
    }
    return out.str();
}

std::string secondsText(double seconds) {
    std::ostringstream out;
    out << seconds << " s";
    return out.str();
}

std::size_t recordBytes(const std::vector<iot::IOT_NVP> &pairs) {
    std::size_t total = 0;
    for (const auto &pair : pairs) {
        total += pair.name().size();
        const auto &value = pair.value();
        switch (value.kind()) {
        case IotKind::iotv_int32:
        case IotKind::iotv_uint32:
        case IotKind::iotv_float32:
            total += 4;
            break;
        case IotKind::iotv_int64:
            total += 8;
            break;
        case IotKind::iotv_string:
            total += value.iotv_string().size();
            break;
        case IotKind::iotv_byte_seq:
            total += value.iotv_byte_seq().size();
            break;
        case IotKind::iotv_nvp_seq:
            total += recordBytes(value.iotv_nvp_seq());
            break;
        case IotKind::none:
            break;
        }
    }
    return total;
}

} // namespace qxbus
