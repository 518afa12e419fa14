#pragma once
// Name-value model of the bus: every tag-group sample is a vector of IOT_NVP,
// each pair holding a name and one typed IOT_VALUE. Lists travel as an
// iotv_nvp_seq of unnamed entries.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "marlet/export.h"

namespace com::quorixtech::iot {

class IOT_NVP;

enum class IotKind : std::uint8_t {
    none = 0,
    iotv_int32 = 1,
    iotv_uint32 = 2,
    iotv_int64 = 3,
    iotv_float32 = 4,
    iotv_string = 5,
    iotv_byte_seq = 6,
    iotv_nvp_seq = 7,
};

MARLET_API const char* kindName(IotKind kind);

// Thrown by a getter that is asked for another kind than the value holds.
class MARLET_API IotKindError : public std::runtime_error {
public:
    IotKindError(IotKind expected, IotKind actual);
    IotKind expected() const { return expected_; }
    IotKind actual() const { return actual_; }

private:
    IotKind expected_;
    IotKind actual_;
};

using ByteSeq = std::vector<std::uint8_t>;
using NvpSeq = std::vector<IOT_NVP>;

class MARLET_API IOT_VALUE {
public:
    IOT_VALUE() = default;

    IotKind kind() const { return static_cast<IotKind>(value_.index()); }

    // Setters: replace whatever the value held.
    void iotv_int32(std::int32_t v) { value_ = v; }
    void iotv_uint32(std::uint32_t v) { value_ = v; }
    void iotv_int64(std::int64_t v) { value_ = v; }
    void iotv_float32(float v) { value_ = v; }
    void iotv_string(std::string v) { value_.emplace<std::string>(std::move(v)); }
    void iotv_byte_seq(ByteSeq v) { value_.emplace<ByteSeq>(std::move(v)); }
    void iotv_nvp_seq(NvpSeq v);

    // Getters: throw IotKindError when the value is of another kind.
    std::int32_t iotv_int32() const { return get<std::int32_t>(IotKind::iotv_int32); }
    std::uint32_t iotv_uint32() const { return get<std::uint32_t>(IotKind::iotv_uint32); }
    std::int64_t iotv_int64() const { return get<std::int64_t>(IotKind::iotv_int64); }
    float iotv_float32() const { return get<float>(IotKind::iotv_float32); }
    const std::string& iotv_string() const { return getRef<std::string>(IotKind::iotv_string); }
    const ByteSeq& iotv_byte_seq() const { return getRef<ByteSeq>(IotKind::iotv_byte_seq); }
    const NvpSeq& iotv_nvp_seq() const { return getRef<NvpSeq>(IotKind::iotv_nvp_seq); }

    // Mutable access for decoders that move large payloads out instead of copying.
    ByteSeq& byteSeqRef() { return getMut<ByteSeq>(IotKind::iotv_byte_seq); }
    NvpSeq& nvpSeqRef() { return getMut<NvpSeq>(IotKind::iotv_nvp_seq); }

    bool operator==(const IOT_VALUE& other) const;
    bool operator!=(const IOT_VALUE& other) const { return !(*this == other); }

private:
    template <typename T> T get(IotKind k) const {
        if (auto p = std::get_if<T>(&value_)) return *p;
        throw IotKindError(k, kind());
    }
    template <typename T> const T& getRef(IotKind k) const {
        if (auto p = std::get_if<T>(&value_)) return *p;
        throw IotKindError(k, kind());
    }
    template <typename T> T& getMut(IotKind k) {
        if (auto p = std::get_if<T>(&value_)) return *p;
        throw IotKindError(k, kind());
    }

    // Index order matches IotKind.
    std::variant<std::monostate, std::int32_t, std::uint32_t, std::int64_t, float, std::string, ByteSeq, NvpSeq>
        value_;
};

class MARLET_API IOT_NVP {
public:
    IOT_NVP() = default;
    IOT_NVP(std::string name, IOT_VALUE value) : name_(std::move(name)), value_(std::move(value)) {}

    const std::string& name() const { return name_; }
    void name(std::string n) { name_ = std::move(n); }
    const IOT_VALUE& value() const { return value_; }
    IOT_VALUE& value() { return value_; }
    void value(IOT_VALUE v) { value_ = std::move(v); }

    bool operator==(const IOT_NVP& other) const { return name_ == other.name_ && value_ == other.value_; }
    bool operator!=(const IOT_NVP& other) const { return !(*this == other); }

private:
    std::string name_;
    IOT_VALUE value_;
};

inline void IOT_VALUE::iotv_nvp_seq(NvpSeq v) { value_.emplace<NvpSeq>(std::move(v)); }

} // namespace com::quorixtech::iot
