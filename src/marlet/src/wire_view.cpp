#include "wire_view.h"

#include <cstring>

#include "marlet/marlet.h"

namespace com::quorixtech::marlet::detail {

namespace {

// Encapsulation identifiers of the serialized forms a peer may send.
constexpr std::uint16_t kCdrBe = 0x0000, kCdrLe = 0x0001;
constexpr std::uint16_t kPlainCdr2Be = 0x0006, kPlainCdr2Le = 0x0007;
constexpr std::uint16_t kDelimitedCdr2Be = 0x0008, kDelimitedCdr2Le = 0x0009;

class CdrReader {
  public:
    CdrReader(const std::uint8_t *body, std::size_t size, bool littleEndian, std::size_t maxAlign)
        : p_(body), size_(size), le_(littleEndian), maxAlign_(maxAlign) {}

    std::uint32_t u32() { return static_cast<std::uint32_t>(integer(4)); }
    std::uint64_t u64() { return integer(8); }

    std::string string(const char *field) {
        const std::uint32_t len = u32();
        // Length counts the terminating NUL, which must be there.
        if (len == 0 || len > size_ - pos_ || p_[pos_ + len - 1] != 0) fail(field);
        std::string s(reinterpret_cast<const char *>(p_ + pos_), len - 1);
        pos_ += len;
        return s;
    }

    const std::uint8_t *octets(std::size_t &len) {
        len = u32();
        if (len > size_ - pos_) fail("payload");
        const std::uint8_t *start = p_ + pos_;
        pos_ += len;
        return start;
    }

  private:
    std::uint64_t integer(std::size_t width) {
        const std::size_t align = width < maxAlign_ ? width : maxAlign_;
        pos_ = (pos_ + align - 1) / align * align;
        if (pos_ > size_ || width > size_ - pos_) fail("header field");
        std::uint64_t v = 0;
        for (std::size_t i = 0; i < width; ++i) {
            const std::uint64_t b = p_[pos_ + i];
            v |= le_ ? b << (8 * i) : b << (8 * (width - 1 - i));
        }
        pos_ += width;
        return v;
    }
    [[noreturn]] void fail(const char *what) const {
        throw DecodeError(std::string("serialized bus sample: bad ") + what + " at offset " + std::to_string(pos_));
    }

    const std::uint8_t *p_;
    std::size_t size_;
    std::size_t pos_ = 0;
    bool le_;
    std::size_t maxAlign_;
};

} // namespace

WireView parseWireSample(const std::uint8_t *data, std::size_t size) {
    if (size < 4) throw DecodeError("serialized bus sample shorter than its header");
    const std::uint16_t encapsulation = static_cast<std::uint16_t>(data[0] << 8 | data[1]);
    bool le = false;
    std::size_t maxAlign = 8;
    std::size_t skip = 0;
    switch (encapsulation) {
    case kCdrBe:
        break;
    case kCdrLe:
        le = true;
        break;
    case kPlainCdr2Be:
        maxAlign = 4;
        break;
    case kPlainCdr2Le:
        maxAlign = 4, le = true;
        break;
    // A delimited form starts with the struct's byte length.
    case kDelimitedCdr2Be:
        maxAlign = 4, skip = 4;
        break;
    case kDelimitedCdr2Le:
        maxAlign = 4, le = true, skip = 4;
        break;
    default:
        throw DecodeError("serialized bus sample: unknown encapsulation " + std::to_string(encapsulation));
    }
    if (size < 4 + skip) throw DecodeError("serialized bus sample shorter than its header");
    CdrReader r(data + 4 + skip, size - 4 - skip, le, maxAlign);
    WireView v;
    v.sourceId = r.string("sourceId");
    v.flowId = r.string("flowId");
    v.sessionId = r.string("sessionId");
    v.tagGroup = r.string("tagGroup");
    v.sequenceNumber = r.u64();
    v.sourceTime = static_cast<std::int64_t>(r.u64());
    v.payload = r.octets(v.payloadSize);
    return v;
}

namespace {

// Version 1 aligns every field to its own size, counted from the end of the
// 4-byte encapsulation header.
std::size_t alignUp(std::size_t at, std::size_t to) { return (at + to - 1) / to * to; }

std::size_t headerBytes(const WireHeader &h) {
    std::size_t at = 0;
    for (const std::string *s : {&h.sourceId, &h.flowId, &h.sessionId, &h.tagGroup})
        at = alignUp(at, 4) + 4 + s->size() + 1;
    return alignUp(alignUp(at, 8) + 16, 4) + 4;
}

class CdrWriter {
  public:
    explicit CdrWriter(std::uint8_t *body) : body_(body) {}
    void string(const std::string &s) {
        u32(static_cast<std::uint32_t>(s.size() + 1));
        std::memcpy(body_ + at_, s.c_str(), s.size() + 1);
        at_ += s.size() + 1;
    }
    void u32(std::uint32_t v) { integer(v, 4); }
    void u64(std::uint64_t v) { integer(v, 8); }
    std::uint8_t *end() const { return body_ + at_; }

  private:
    void integer(std::uint64_t v, std::size_t width) {
        while (at_ % width != 0)
            body_[at_++] = 0;
        for (std::size_t i = 0; i < width; ++i)
            body_[at_++] = static_cast<std::uint8_t>(v >> (8 * i));
    }
    std::uint8_t *body_;
    std::size_t at_ = 0;
};

} // namespace

std::size_t wireSampleSize(const WireHeader &header, std::size_t payloadSize) {
    return 4 + alignUp(headerBytes(header) + payloadSize, 4);
}

std::uint8_t *writeWireSample(const WireHeader &header, std::size_t payloadSize, std::uint8_t *out) {
    const std::size_t body = headerBytes(header) + payloadSize;
    const std::size_t padding = alignUp(body, 4) - body;
    // Encapsulation 1 (version 1, little endian); the options' last two bits
    // say how many bytes at the end are padding.
    out[0] = 0x00;
    out[1] = static_cast<std::uint8_t>(kCdrLe);
    out[2] = 0;
    out[3] = static_cast<std::uint8_t>(padding);
    CdrWriter w(out + 4);
    w.string(header.sourceId);
    w.string(header.flowId);
    w.string(header.sessionId);
    w.string(header.tagGroup);
    w.u64(header.sequenceNumber);
    w.u64(static_cast<std::uint64_t>(header.sourceTime));
    w.u32(static_cast<std::uint32_t>(payloadSize));
    std::memset(w.end() + payloadSize, 0, padding);
    return w.end();
}

} // namespace com::quorixtech::marlet::detail
