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

// The pair kind follows the member's type: the separate records carry signed
// ids where the combined record carries unsigned ones, and one field list
// serves both. A pair of another kind throws from its getter, as elsewhere.
inline IOT_NVP typed(const char *name, std::int32_t v) { return i32(name, v); }
inline IOT_NVP typed(const char *name, std::uint32_t v) { return u32(name, v); }
inline IOT_NVP typed(const char *name, float v) { return f32(name, v); }
inline IOT_NVP typed(const char *name, const std::string &v) { return str(name, v); }
inline void read(const IOT_VALUE &v, std::int32_t &out) { out = v.iotv_int32(); }
inline void read(const IOT_VALUE &v, std::uint32_t &out) { out = v.iotv_uint32(); }
inline void read(const IOT_VALUE &v, float &out) { out = v.iotv_float32(); }
inline void read(const IOT_VALUE &v, std::string &out) { out = v.iotv_string(); }

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

// The class result fields after any engine id, in wire order.
template <typename Class> void encodeClass(const Class &c, Pairs &out) {
    out.push_back(typed("index", c.index));
    out.push_back(str("output", c.output));
    out.push_back(str("label", c.label));
    out.push_back(f32("probability", c.probability));
}

template <typename Class> void decodeClassField(const IOT_NVP &p, Class &out) {
    const std::string &n = p.name();
    if (is(n, "index")) read(p.value(), out.index);
    if (is(n, "output")) out.output = p.value().iotv_string();
    if (is(n, "label")) out.label = p.value().iotv_string();
    if (is(n, "probability")) out.probability = p.value().iotv_float32();
}

// The box fields after any engine id. Ids and labels interleave on the wire,
// unlike the member order; peers expect exactly this order.
template <typename Box> void encodeBox(const Box &b, Pairs &out) {
    out.push_back(typed("obj_id", b.obj_id));
    out.push_back(str("obj_label", b.obj_label));
    out.push_back(typed("class_id", b.class_id));
    out.push_back(str("class_label", b.class_label));
    out.push_back(f32("x1", b.x1));
    out.push_back(f32("y1", b.y1));
    out.push_back(f32("x2", b.x2));
    out.push_back(f32("y2", b.y2));
    out.push_back(f32("probability", b.probability));
    out.push_back(str("meta", b.meta));
}

template <typename Box> void decodeBoxField(const IOT_NVP &p, Box &out) {
    const std::string &n = p.name();
    if (is(n, "obj_id")) read(p.value(), out.obj_id);
    if (is(n, "obj_label")) out.obj_label = p.value().iotv_string();
    if (is(n, "class_id")) read(p.value(), out.class_id);
    if (is(n, "class_label")) out.class_label = p.value().iotv_string();
    if (is(n, "x1")) out.x1 = p.value().iotv_float32();
    if (is(n, "y1")) out.y1 = p.value().iotv_float32();
    if (is(n, "x2")) out.x2 = p.value().iotv_float32();
    if (is(n, "y2")) out.y2 = p.value().iotv_float32();
    if (is(n, "probability")) out.probability = p.value().iotv_float32();
    if (is(n, "meta")) out.meta = p.value().iotv_string();
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
