#include "json_pairs.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>

#include "marlet/pair_codec.h"
#include "value_format.h"

namespace qxbus {

namespace iot = com::quorixtech::iot;
using iot::IOT_NVP;
using iot::IOT_VALUE;
using iot::IotKind;
using Json = nlohmann::ordered_json;

namespace {

// The spellings accepted for an explicit kind: the wire name without its prefix.
const std::map<std::string, IotKind> kExplicitKinds = {
    {"int32", IotKind::iotv_int32},     {"uint32", IotKind::iotv_uint32}, {"int64", IotKind::iotv_int64},
    {"float32", IotKind::iotv_float32}, {"string", IotKind::iotv_string}, {"byte_seq", IotKind::iotv_byte_seq},
    {"nvp_seq", IotKind::iotv_nvp_seq},
};

std::string describe(const Json &j) {
    std::string text = j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (text.size() > 40) text = text.substr(0, 37) + "...";
    return std::string(j.type_name()) + " " + text;
}

[[noreturn]] void fail(const std::string &path, const std::string &what) {
    throw JsonInputError("\"" + path + "\": " + what);
}

std::optional<IotKind> explicitKind(const Json &j) {
    if (!j.is_object() || j.size() != 1) return std::nullopt;
    const auto found = kExplicitKinds.find(j.begin().key());
    if (found == kExplicitKinds.end()) return std::nullopt;
    return found->second;
}

// Whole numbers only: 5.0 is not an integer here, so a float written where an
// integer is meant is reported rather than silently truncated.
template <typename T> T integerIn(const Json &j, const std::string &path, const char *kind) {
    const auto outOfRange = [&] { fail(path, std::string("value ") + j.dump() + " does not fit " + kind); };
    if (j.is_number_unsigned()) {
        const auto v = j.get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<T>::max())) outOfRange();
        return static_cast<T>(v);
    }
    if (j.is_number_integer()) {
        const auto v = j.get<std::int64_t>();
        if (v < static_cast<std::int64_t>(std::numeric_limits<T>::min()) ||
            (v > 0 && static_cast<std::uint64_t>(v) > static_cast<std::uint64_t>(std::numeric_limits<T>::max())))
            outOfRange();
        return static_cast<T>(v);
    }
    fail(path, std::string("expected a whole number for ") + kind + ", got " + describe(j));
}

IOT_VALUE valueOf(const Json &j, std::optional<IotKind> hint, const std::string &path);

iot::NvpSeq sequenceOf(const Json &j, const std::string &path) {
    iot::NvpSeq seq;
    if (j.is_object()) {
        for (auto it = j.begin(); it != j.end(); ++it)
            seq.emplace_back(it.key(), valueOf(it.value(), std::nullopt, path + "." + it.key()));
    } else if (j.is_array()) {
        // Lists travel as unnamed entries, each holding the item's own value.
        for (std::size_t i = 0; i < j.size(); ++i)
            seq.emplace_back("", valueOf(j[i], std::nullopt, path + "[" + std::to_string(i) + "]"));
    } else {
        fail(path, "expected an object or an array for nvp_seq, got " + describe(j));
    }
    return seq;
}

IOT_VALUE convert(const Json &j, IotKind kind, const std::string &path) {
    IOT_VALUE v;
    switch (kind) {
    case IotKind::iotv_int32:
        v.iotv_int32(integerIn<std::int32_t>(j, path, "int32"));
        break;
    case IotKind::iotv_uint32:
        v.iotv_uint32(integerIn<std::uint32_t>(j, path, "uint32"));
        break;
    case IotKind::iotv_int64:
        v.iotv_int64(integerIn<std::int64_t>(j, path, "int64"));
        break;
    case IotKind::iotv_float32: {
        if (!j.is_number()) fail(path, "expected a number for float32, got " + describe(j));
        const double d = j.get<double>();
        if (std::isfinite(d) && std::fabs(d) > std::numeric_limits<float>::max())
            fail(path, "value " + j.dump() + " does not fit float32");
        v.iotv_float32(static_cast<float>(d));
        break;
    }
    case IotKind::iotv_string:
        if (!j.is_string()) fail(path, "expected a string, got " + describe(j));
        v.iotv_string(j.get<std::string>());
        break;
    case IotKind::iotv_byte_seq: {
        if (!j.is_array()) fail(path, "expected an array of numbers 0 to 255 for byte_seq, got " + describe(j));
        iot::ByteSeq bytes;
        bytes.reserve(j.size());
        for (std::size_t i = 0; i < j.size(); ++i)
            bytes.push_back(integerIn<std::uint8_t>(j[i], path + "[" + std::to_string(i) + "]", "a byte"));
        v.iotv_byte_seq(std::move(bytes));
        break;
    }
    case IotKind::iotv_nvp_seq:
        v.iotv_nvp_seq(sequenceOf(j, path));
        break;
    case IotKind::none:
        fail(path, "the definition gives this field no value kind");
    }
    return v;
}

IOT_VALUE inferred(const Json &j, const std::string &path) {
    IOT_VALUE v;
    if (j.is_string()) {
        v.iotv_string(j.get<std::string>());
    } else if (j.is_number_float()) {
        return convert(j, IotKind::iotv_float32, path);
    } else if (j.is_number()) {
        const bool fitsInt32 = j.is_number_unsigned()
                                   ? j.get<std::uint64_t>() <= std::uint64_t(std::numeric_limits<std::int32_t>::max())
                                   : j.get<std::int64_t>() >= std::numeric_limits<std::int32_t>::min() &&
                                         j.get<std::int64_t>() <= std::numeric_limits<std::int32_t>::max();
        return convert(j, fitsInt32 ? IotKind::iotv_int32 : IotKind::iotv_int64, path);
    } else if (j.is_object() || j.is_array()) {
        v.iotv_nvp_seq(sequenceOf(j, path));
    } else {
        fail(path, describe(j) + " has no value kind; write a string, a number, an object or an array");
    }
    return v;
}

IOT_VALUE valueOf(const Json &j, std::optional<IotKind> hint, const std::string &path) {
    if (const auto kind = explicitKind(j)) return convert(j.begin().value(), *kind, path);
    if (hint) return convert(j, *hint, path);
    return inferred(j, path);
}

Json valueToJson(const IOT_VALUE &value) {
    switch (value.kind()) {
    case IotKind::iotv_int32:
        return value.iotv_int32();
    case IotKind::iotv_uint32:
        return value.iotv_uint32();
    case IotKind::iotv_int64:
        return value.iotv_int64();
    case IotKind::iotv_float32:
        return value.iotv_float32();
    case IotKind::iotv_string:
        return value.iotv_string();
    case IotKind::iotv_byte_seq: {
        Json summary;
        summary["bytes"] = value.iotv_byte_seq().size();
        summary["head"] = hexHead(value.iotv_byte_seq());
        return summary;
    }
    case IotKind::iotv_nvp_seq:
        return pairsToJson(value.iotv_nvp_seq());
    case IotKind::none:
        break;
    }
    return nullptr;
}

// Explicit kinds ({"nvp_seq": ...}) add a JSON level to every pair level, so
// this admits every record the codec can carry.
constexpr std::size_t kMaxJsonDepth = 2 * (com::quorixtech::marlet::codec::kMaxDepth + 1);

// Recurses at most limit levels, however deep the JSON is.
bool deeperThan(const Json &j, std::size_t limit) {
    if (!j.is_structured()) return false;
    if (limit == 0) return true;
    return std::any_of(j.begin(), j.end(), [&](const Json &child) { return deeperThan(child, limit - 1); });
}

} // namespace

Pairs pairsFromJson(const std::string &text, const std::vector<com::quorixtech::marlet::FieldDefinition> &fields) {
    Json record;
    try {
        record = Json::parse(text);
    } catch (const nlohmann::json::exception &e) {
        // Syntax errors, and numbers too large for a double ("1e999").
        throw JsonInputError(std::string("the record is not valid JSON: ") + e.what());
    }
    // Converting (and describing) JSON recurses once per level: refuse what is
    // deeper than any record the bus can carry before walking it.
    if (deeperThan(record, kMaxJsonDepth))
        throw JsonInputError("the record is nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    if (!record.is_object()) throw JsonInputError("the record must be a JSON object, got " + describe(record));

    Pairs pairs;
    for (auto it = record.begin(); it != record.end(); ++it) {
        const auto field =
            std::find_if(fields.begin(), fields.end(), [&](const auto &f) { return f.name == it.key(); });
        std::optional<IotKind> hint;
        if (field != fields.end() && field->kind != IotKind::none) hint = field->kind;
        // A typo in a field name would otherwise go out silently and be ignored by every reader.
        if (!fields.empty() && field == fields.end() && !explicitKind(it.value()))
            fail(it.key(), "not a field of this tag group; give its kind explicitly, e.g. {\"int32\": 1}, to send it "
                           "anyway");
        pairs.emplace_back(it.key(), valueOf(it.value(), hint, it.key()));
    }
    try {
        com::quorixtech::marlet::codec::encodedSize(pairs);
    } catch (const com::quorixtech::marlet::MarletError &e) {
        throw JsonInputError(std::string("the record cannot be sent: ") + e.what());
    }
    return pairs;
}

Json pairsToJson(const Pairs &pairs) {
    const bool allUnnamed =
        !pairs.empty() && std::all_of(pairs.begin(), pairs.end(), [](const IOT_NVP &p) { return p.name().empty(); });
    if (pairs.empty() || allUnnamed) {
        Json list = Json::array();
        for (const auto &pair : pairs)
            list.push_back(valueToJson(pair.value()));
        return list;
    }
    Json object = Json::object();
    for (const auto &pair : pairs)
        object[pair.name()] = valueToJson(pair.value()); // a repeated name keeps the last
    return object;
}

} // namespace qxbus
