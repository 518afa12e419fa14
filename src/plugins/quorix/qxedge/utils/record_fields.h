#pragma once
// Field-level encoding and decoding shared by the separate records and the
// combined pipe record, which carry the frame, device and mask fields under
// the same names, kinds and order.

#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "marlet/iot_value.h"

namespace TOLVIXO::fields {

using com::quorixtech::iot::IOT_NVP;
using com::quorixtech::iot::IOT_VALUE;
using Pairs = std::vector<IOT_NVP>;

inline IOT_NVP str(const char *name, const std::string &v) {
    IOT_VALUE x;
    x.iotv_string(v);
    return IOT_NVP(name, std::move(x));
}
inline IOT_NVP u32(const char *name, std::uint32_t v) {
    IOT_VALUE x;
    x.iotv_uint32(v);
    return IOT_NVP(name, std::move(x));
}
inline IOT_NVP i32(const char *name, std::int32_t v) {
    IOT_VALUE x;
    x.iotv_int32(v);
    return IOT_NVP(name, std::move(x));
}
inline IOT_NVP i64(const char *name, std::int64_t v) {
    IOT_VALUE x;
    x.iotv_int64(v);
    return IOT_NVP(name, std::move(x));
}
inline IOT_NVP f32(const char *name, float v) {
    IOT_VALUE x;
    x.iotv_float32(v);
    return IOT_NVP(name, std::move(x));
}
inline IOT_NVP bytes(const char *name, const std::vector<unsigned char> &v) {
    IOT_VALUE x;
    x.iotv_byte_seq(v);
    return IOT_NVP(name, std::move(x));
}
inline IOT_NVP seq(const char *name, Pairs v) {
    IOT_VALUE x;
    x.iotv_nvp_seq(std::move(v));
    return IOT_NVP(name, std::move(x));
}
// A list entry: no name, the item's own pairs as its value.
inline IOT_NVP entry(Pairs v) {
    IOT_NVP e;
    IOT_VALUE x;
    x.iotv_nvp_seq(std::move(v));
    e.value(std::move(x));
    return e;
}

// Exact, case-sensitive name test. The length is compared first: most of a
// decoder's tests fail there, which keeps large lists cheap to decode.
template <std::size_t N> bool is(const std::string &name, const char (&literal)[N]) {
    return name.size() == N - 1 && std::memcmp(name.data(), literal, N - 1) == 0;
}

// Byte payloads: copied out of a sequence the caller keeps, moved out of one
// it hands over.
inline void takeBytes(const IOT_NVP &p, std::vector<unsigned char> &out) {
    const auto &src = p.value().iotv_byte_seq();
    out.assign(src.begin(), src.end());
}
inline void takeBytes(IOT_NVP &p, std::vector<unsigned char> &out) { out = std::move(p.value().byteSeqRef()); }

// The eleven frame pairs, in wire order.
template <typename Frame> void encodeFrame(const Frame &f, Pairs &out) {
    out.push_back(str("stream_id", f.stream_id));
    out.push_back(u32("frame_id", f.frame_id));
    out.push_back(i64("timestamp", f.timestamp));
    out.push_back(bytes("data", f.data));
    out.push_back(u32("width", f.width));
    out.push_back(u32("height", f.height));
    out.push_back(u32("channels", f.channels));
    out.push_back(u32("size", f.size));
    out.push_back(str("format", f.format));
    out.push_back(str("compression", f.compression));
    out.push_back(f32("framerate", f.framerate));
}

// Each name is tested on its own (no else-chain): a pair matches at most one
// anyway, and this keeps every decoder of the same shape.
template <typename Pair, typename Frame> void decodeFrameField(Pair &p, Frame &out) {
    const std::string &n = p.name();
    if (is(n, "stream_id")) out.stream_id = p.value().iotv_string();
    if (is(n, "frame_id")) out.frame_id = p.value().iotv_uint32();
    if (is(n, "timestamp")) out.timestamp = p.value().iotv_int64();
    if (is(n, "data")) takeBytes(p, out.data);
    if (is(n, "width")) out.width = p.value().iotv_uint32();
    if (is(n, "height")) out.height = p.value().iotv_uint32();
    if (is(n, "channels")) out.channels = p.value().iotv_uint32();
    if (is(n, "size")) out.size = p.value().iotv_uint32();
    if (is(n, "format")) out.format = p.value().iotv_string();
    if (is(n, "compression")) out.compression = p.value().iotv_string();
    if (is(n, "framerate")) out.framerate = p.value().iotv_float32();
}

template <typename Device> void encodeDevice(const Device &d, Pairs &out) {
    out.push_back(str("stream_id", d.stream_id));
    out.push_back(str("mac_address", d.mac_address));
    out.push_back(str("ip_address", d.ip_address));
    out.push_back(i32("port", d.port));
    out.push_back(str("uri", d.uri));
    out.push_back(str("manufacturer", d.manufacturer));
    out.push_back(str("model", d.model));
    out.push_back(str("serial", d.serial));
    out.push_back(str("fw_version", d.fw_version));
    out.push_back(str("dev_id", d.dev_id));
    out.push_back(str("status", d.status));
    out.push_back(str("kind", d.kind));
    out.push_back(str("protocol", d.protocol));
}

template <typename Device> void decodeDevice(const Pairs &pairs, Device &out) {
    for (const auto &p : pairs) {
        const std::string &n = p.name();
        if (is(n, "stream_id")) out.stream_id = p.value().iotv_string();
        if (is(n, "mac_address")) out.mac_address = p.value().iotv_string();
        if (is(n, "ip_address")) out.ip_address = p.value().iotv_string();
        if (is(n, "port")) out.port = p.value().iotv_int32();
        if (is(n, "uri")) out.uri = p.value().iotv_string();
        if (is(n, "manufacturer")) out.manufacturer = p.value().iotv_string();
        if (is(n, "model")) out.model = p.value().iotv_string();
        if (is(n, "serial")) out.serial = p.value().iotv_string();
        if (is(n, "fw_version")) out.fw_version = p.value().iotv_string();
        if (is(n, "dev_id")) out.dev_id = p.value().iotv_string();
        if (is(n, "status")) out.status = p.value().iotv_string();
        if (is(n, "kind")) out.kind = p.value().iotv_string();
        if (is(n, "protocol")) out.protocol = p.value().iotv_string();
    }
}

template <typename Mask> Pairs encodeMask(const Mask &m) {
    Pairs out;
    out.reserve(10);
    out.push_back(u32("id", m.id));
    out.push_back(u32("repeat", m.repeat));
    out.push_back(u32("width", m.width));
    out.push_back(u32("height", m.height));
    out.push_back(u32("size", m.size));
    out.push_back(u32("channels", m.channels));
    out.push_back(u32("color", m.color));
    out.push_back(str("label", m.label));
    out.push_back(f32("probability", m.probability));
    out.push_back(bytes("data", m.data));
    return out;
}

template <typename Mask> void decodeMask(const Pairs &pairs, Mask &out) {
    for (const auto &p : pairs) {
        const std::string &n = p.name();
        if (is(n, "id")) out.id = p.value().iotv_uint32();
        if (is(n, "repeat")) out.repeat = p.value().iotv_uint32();
        if (is(n, "width")) out.width = p.value().iotv_uint32();
        if (is(n, "height")) out.height = p.value().iotv_uint32();
        if (is(n, "size")) out.size = p.value().iotv_uint32();
        if (is(n, "channels")) out.channels = p.value().iotv_uint32();
        if (is(n, "color")) out.color = p.value().iotv_uint32();
        if (is(n, "label")) out.label = p.value().iotv_string();
        if (is(n, "probability")) out.probability = p.value().iotv_float32();
        if (is(n, "data")) takeBytes(p, out.data);
    }
}

// Decodes every entry of a list pair (whatever the entry's name) into a fresh
// element and appends it, in sequence order.
template <typename Element, typename DecodeFn>
void decodeList(const IOT_NVP &list, std::vector<Element> &out, DecodeFn decode) {
    const auto &entries = list.value().iotv_nvp_seq();
    out.reserve(out.size() + entries.size());
    for (const auto &e : entries) {
        Element element;
        decode(e.value().iotv_nvp_seq(), element);
        out.push_back(std::move(element));
    }
}

} // namespace TOLVIXO::fields
