#include "wire_view.h"

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

} // namespace com::quorixtech::marlet::detail
