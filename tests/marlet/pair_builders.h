#pragma once
// Short builders for values and named pairs, shared by the codec tests and the
// qxbus record tests so that expected records read like the records themselves.

#include <string>
#include <utility>

#include "marlet/iot_value.h"

namespace pairtest {

using com::quorixtech::iot::ByteSeq;
using com::quorixtech::iot::IOT_NVP;
using com::quorixtech::iot::IOT_VALUE;
using com::quorixtech::iot::NvpSeq;

template <typename T> IOT_VALUE valueOf(void (IOT_VALUE::*set)(T), T v) {
    IOT_VALUE x;
    (x.*set)(std::move(v));
    return x;
}

inline IOT_VALUE i32(std::int32_t v) { return valueOf(&IOT_VALUE::iotv_int32, v); }
inline IOT_VALUE u32(std::uint32_t v) { return valueOf(&IOT_VALUE::iotv_uint32, v); }
inline IOT_VALUE i64(std::int64_t v) { return valueOf(&IOT_VALUE::iotv_int64, v); }
inline IOT_VALUE f32(float v) { return valueOf(&IOT_VALUE::iotv_float32, v); }
inline IOT_VALUE str(std::string v) { return valueOf(&IOT_VALUE::iotv_string, std::move(v)); }
inline IOT_VALUE bytes(ByteSeq v) { return valueOf(&IOT_VALUE::iotv_byte_seq, std::move(v)); }
inline IOT_VALUE seq(NvpSeq v) { return valueOf(&IOT_VALUE::iotv_nvp_seq, std::move(v)); }

inline IOT_NVP i32(std::string n, std::int32_t v) { return {std::move(n), i32(v)}; }
inline IOT_NVP u32(std::string n, std::uint32_t v) { return {std::move(n), u32(v)}; }
inline IOT_NVP i64(std::string n, std::int64_t v) { return {std::move(n), i64(v)}; }
inline IOT_NVP f32(std::string n, float v) { return {std::move(n), f32(v)}; }
inline IOT_NVP str(std::string n, std::string v) { return {std::move(n), str(std::move(v))}; }
inline IOT_NVP bytes(std::string n, ByteSeq v) { return {std::move(n), bytes(std::move(v))}; }
inline IOT_NVP seq(std::string n, NvpSeq v) { return {std::move(n), seq(std::move(v))}; }

} // namespace pairtest
