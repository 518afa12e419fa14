#include "marlet/pair_codec.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace com::quorixtech::marlet::codec {

using iot::IotKind;

namespace {

// The smallest pair on the wire: a zero-length name (one LEB128 byte) and the
// kind byte of an empty value. A declared count is checked against this before
// anything is allocated, so a forged count cannot reserve gigabytes.
constexpr std::size_t kMinPairBytes = 2;
constexpr std::size_t kMaxLeb128Bytes = 10;
constexpr std::uint64_t kReserveLimit = 4096;

std::size_t leb128Size(std::uint64_t v) {
    std::size_t n = 1;
    while (v >= 0x80) {
        v >>= 7;
        ++n;
    }
    return n;
}

std::size_t valueSize(const IOT_VALUE &value, std::size_t depth);

std::size_t listSize(const std::vector<IOT_NVP> &pairs, std::size_t depth, const Reserved *reserved = nullptr) {
    if (depth > kMaxDepth) throw MarletError("cannot encode pairs nested deeper than " + std::to_string(kMaxDepth));
    std::size_t n = leb128Size(pairs.size());
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        const IOT_NVP &p = pairs[i];
        n += leb128Size(p.name().size()) + p.name().size() + 1;
        n += reserved && reserved->pair == i ? leb128Size(reserved->size) + reserved->size : valueSize(p.value(), depth);
    }
    return n;
}

void checkReserved(const std::vector<IOT_NVP> &pairs, const Reserved &reserved) {
    if (reserved.pair >= pairs.size() || pairs[reserved.pair].value().kind() != IotKind::iotv_byte_seq ||
        !pairs[reserved.pair].value().iotv_byte_seq().empty())
        throw MarletError("reserved bytes must stand for an empty byte sequence of a top-level pair");
}

std::size_t valueSize(const IOT_VALUE &value, std::size_t depth) {
    switch (value.kind()) {
    case IotKind::none:
        return 0;
    case IotKind::iotv_int32:
    case IotKind::iotv_uint32:
    case IotKind::iotv_float32:
        return 4;
    case IotKind::iotv_int64:
        return 8;
    case IotKind::iotv_string: {
        const std::size_t len = value.iotv_string().size();
        return leb128Size(len) + len;
    }
    case IotKind::iotv_byte_seq: {
        const std::size_t len = value.iotv_byte_seq().size();
        return leb128Size(len) + len;
    }
    case IotKind::iotv_nvp_seq:
        return listSize(value.iotv_nvp_seq(), depth + 1);
    }
    throw MarletError("cannot encode a value of unknown kind");
}

class Writer {
  public:
    Writer(std::uint8_t *out, std::size_t size) : p_(out), end_(out + size) {}

    void byte(std::uint8_t b) {
        need(1);
        *p_++ = b;
    }
    void leb128(std::uint64_t v) {
        while (v >= 0x80) {
            byte(static_cast<std::uint8_t>(v) | 0x80);
            v >>= 7;
        }
        byte(static_cast<std::uint8_t>(v));
    }
    void u32(std::uint32_t v) {
        need(4);
        for (int i = 0; i < 4; ++i)
            *p_++ = static_cast<std::uint8_t>(v >> (8 * i));
    }
    void u64(std::uint64_t v) {
        need(8);
        for (int i = 0; i < 8; ++i)
            *p_++ = static_cast<std::uint8_t>(v >> (8 * i));
    }
    void bytes(const void *src, std::size_t len) {
        leb128(len);
        need(len);
        if (len) std::memcpy(p_, src, len);
        p_ += len;
    }
    bool full() const { return p_ == end_; }

    void list(const std::vector<IOT_NVP> &pairs) {
        leb128(pairs.size());
        for (const IOT_NVP &p : pairs) {
            bytes(p.name().data(), p.name().size());
            value(p.value());
        }
    }

    // The top level, leaving one byte sequence's bytes to their producer.
    std::uint8_t *list(const std::vector<IOT_NVP> &pairs, const Reserved &reserved) {
        std::uint8_t *at = nullptr;
        leb128(pairs.size());
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            bytes(pairs[i].name().data(), pairs[i].name().size());
            if (i != reserved.pair) {
                value(pairs[i].value());
                continue;
            }
            byte(static_cast<std::uint8_t>(IotKind::iotv_byte_seq));
            leb128(reserved.size);
            need(reserved.size);
            at = p_;
            p_ += reserved.size;
        }
        return at;
    }

    void value(const IOT_VALUE &v) {
        byte(static_cast<std::uint8_t>(v.kind()));
        switch (v.kind()) {
        case IotKind::none:
            return;
        case IotKind::iotv_int32:
            u32(static_cast<std::uint32_t>(v.iotv_int32()));
            return;
        case IotKind::iotv_uint32:
            u32(v.iotv_uint32());
            return;
        case IotKind::iotv_int64:
            u64(static_cast<std::uint64_t>(v.iotv_int64()));
            return;
        case IotKind::iotv_float32: {
            const float f = v.iotv_float32();
            std::uint32_t bits;
            std::memcpy(&bits, &f, sizeof bits);
            u32(bits);
            return;
        }
        case IotKind::iotv_string:
            bytes(v.iotv_string().data(), v.iotv_string().size());
            return;
        case IotKind::iotv_byte_seq:
            bytes(v.iotv_byte_seq().data(), v.iotv_byte_seq().size());
            return;
        case IotKind::iotv_nvp_seq:
            list(v.iotv_nvp_seq());
            return;
        }
    }

  private:
    void need(std::size_t n) {
        if (static_cast<std::size_t>(end_ - p_) < n) throw MarletError("encode buffer smaller than the encoding");
    }
    std::uint8_t *p_;
    std::uint8_t *end_;
};

class Reader {
  public:
    Reader(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}

    std::size_t offset() const { return pos_; }
    std::size_t left() const { return size_ - pos_; }

    std::uint8_t byte(const char *what) {
        if (left() < 1) fail(std::string("truncated ") + what);
        return data_[pos_++];
    }

    std::uint64_t leb128(const char *what) {
        const std::size_t start = pos_;
        std::uint64_t v = 0;
        for (std::size_t i = 0; i < kMaxLeb128Bytes; ++i) {
            if (left() < 1) failAt(start, std::string("truncated ") + what);
            const std::uint8_t b = data_[pos_++];
            // The tenth byte may only carry the top bit of a 64-bit value.
            if (i == kMaxLeb128Bytes - 1 && b > 1) failAt(start, std::string("oversized ") + what);
            v |= static_cast<std::uint64_t>(b & 0x7f) << (7 * i);
            if (!(b & 0x80)) return v;
        }
        failAt(start, std::string("oversized ") + what);
    }

    std::uint32_t u32(const char *what) {
        if (left() < 4) fail(std::string("truncated ") + what);
        std::uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= static_cast<std::uint32_t>(data_[pos_ + i]) << (8 * i);
        pos_ += 4;
        return v;
    }

    std::uint64_t u64(const char *what) {
        if (left() < 8) fail(std::string("truncated ") + what);
        std::uint64_t v = 0;
        for (int i = 0; i < 8; ++i)
            v |= static_cast<std::uint64_t>(data_[pos_ + i]) << (8 * i);
        pos_ += 8;
        return v;
    }

    // A length-prefixed run of bytes; returns its start and advances past it.
    const std::uint8_t *run(std::size_t &len, const char *what) {
        const std::size_t start = pos_;
        const std::uint64_t declared = leb128(what);
        if (declared > left()) {
            failAt(start, std::string("truncated ") + what + " (length " + std::to_string(declared) + ", " +
                              std::to_string(left()) + " bytes left)");
        }
        len = static_cast<std::size_t>(declared);
        const std::uint8_t *p = data_ + pos_;
        pos_ += len;
        return p;
    }

    std::vector<IOT_NVP> list(std::size_t depth) {
        if (depth > kMaxDepth) fail("nesting deeper than " + std::to_string(kMaxDepth));
        const std::size_t start = pos_;
        const std::uint64_t count = leb128("pair count");
        if (count > left() / kMinPairBytes) {
            failAt(start, "pair count " + std::to_string(count) + " larger than the " + std::to_string(left()) +
                              " bytes left can hold");
        }
        // Grown as pairs actually decode: an in-memory pair is far larger than
        // its two smallest wire bytes, so reserving the declared count would
        // still let garbage multiply its size.
        std::vector<IOT_NVP> pairs;
        pairs.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(count, kReserveLimit)));
        for (std::uint64_t i = 0; i < count; ++i) {
            std::size_t len = 0;
            const std::uint8_t *name = run(len, "name");
            IOT_NVP &p = pairs.emplace_back();
            p.name(std::string(reinterpret_cast<const char *>(name), len));
            value(p.value(), depth);
        }
        return pairs;
    }

    void value(IOT_VALUE &v, std::size_t depth) {
        const std::size_t at = pos_;
        const std::uint8_t kind = byte("kind");
        switch (static_cast<IotKind>(kind)) {
        case IotKind::none:
            return;
        case IotKind::iotv_int32:
            v.iotv_int32(static_cast<std::int32_t>(u32("iotv_int32")));
            return;
        case IotKind::iotv_uint32:
            v.iotv_uint32(u32("iotv_uint32"));
            return;
        case IotKind::iotv_int64:
            v.iotv_int64(static_cast<std::int64_t>(u64("iotv_int64")));
            return;
        case IotKind::iotv_float32: {
            const std::uint32_t bits = u32("iotv_float32");
            float f;
            std::memcpy(&f, &bits, sizeof f);
            v.iotv_float32(f);
            return;
        }
        case IotKind::iotv_string: {
            std::size_t len = 0;
            const std::uint8_t *p = run(len, "string");
            v.iotv_string(std::string(reinterpret_cast<const char *>(p), len));
            return;
        }
        case IotKind::iotv_byte_seq: {
            std::size_t len = 0;
            const std::uint8_t *p = run(len, "byte sequence");
            v.iotv_byte_seq(iot::ByteSeq(p, p + len));
            return;
        }
        case IotKind::iotv_nvp_seq:
            v.iotv_nvp_seq(list(depth + 1));
            return;
        }
        failAt(at, "unknown kind " + std::to_string(kind));
    }

    [[noreturn]] void fail(const std::string &what) const { failAt(pos_, what); }
    [[noreturn]] static void failAt(std::size_t offset, const std::string &what) {
        throw DecodeError(what + " at offset " + std::to_string(offset));
    }

  private:
    const std::uint8_t *data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

} // namespace

std::size_t encodedSize(const std::vector<IOT_NVP> &pairs) { return 2 + listSize(pairs, 0); }

void encodeInto(const std::vector<IOT_NVP> &pairs, std::uint8_t *out, std::size_t size) {
    Writer w(out, size);
    w.byte(kMagic);
    w.byte(kVersion);
    w.list(pairs);
    if (!w.full()) throw MarletError("encode buffer larger than the encoding");
}

std::size_t encodedSize(const std::vector<IOT_NVP> &pairs, const Reserved &reserved) {
    checkReserved(pairs, reserved);
    return 2 + listSize(pairs, 0, &reserved);
}

std::uint8_t *encodeInto(const std::vector<IOT_NVP> &pairs, std::uint8_t *out, std::size_t size,
                         const Reserved &reserved) {
    checkReserved(pairs, reserved);
    Writer w(out, size);
    w.byte(kMagic);
    w.byte(kVersion);
    std::uint8_t *at = w.list(pairs, reserved);
    if (!w.full()) throw MarletError("encode buffer larger than the encoding");
    return at;
}

std::vector<std::uint8_t> encode(const std::vector<IOT_NVP> &pairs) {
    std::vector<std::uint8_t> out(encodedSize(pairs));
    encodeInto(pairs, out.data(), out.size());
    return out;
}

std::vector<IOT_NVP> decode(const std::uint8_t *data, std::size_t size) {
    if (size > 0 && data == nullptr) throw DecodeError("null payload of " + std::to_string(size) + " bytes");
    Reader r(data, size);
    const std::uint8_t magic = r.byte("header");
    if (magic != kMagic) Reader::failAt(0, "bad magic byte " + std::to_string(magic));
    const std::uint8_t version = r.byte("header");
    if (version != kVersion) Reader::failAt(1, "unsupported format version " + std::to_string(version));
    std::vector<IOT_NVP> pairs = r.list(0);
    if (r.left() != 0) r.fail(std::to_string(r.left()) + " trailing bytes");
    return pairs;
}

} // namespace com::quorixtech::marlet::codec
