#pragma once
// The compact binary encoding of a pair tree (std::vector<IOT_NVP>) that
// travels as the payload of every bus sample. docs/wire-format.md describes
// the bytes. Pure code: no DDS, no I/O, no global state.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "marlet/marlet.h"

namespace com::quorixtech::marlet::codec {

// First two bytes of every payload: a magic byte and the format version.
constexpr std::uint8_t kMagic = 0xB7;
constexpr std::uint8_t kVersion = 1;
// Deepest nesting of iotv_nvp_seq values that decode accepts (and encode produces).
constexpr std::size_t kMaxDepth = 32;

// Exact number of bytes encodeInto writes for pairs. Throws MarletError when
// the tree is nested deeper than kMaxDepth (a receiver would reject it).
MARLET_API std::size_t encodedSize(const std::vector<IOT_NVP> &pairs);

// Writes the encoding into out, which must hold exactly encodedSize(pairs)
// bytes; callers size their buffers first so that a frame is encoded once,
// straight into memory that is handed to the bus.
MARLET_API void encodeInto(const std::vector<IOT_NVP> &pairs, std::uint8_t *out, std::size_t size);

// A byte sequence left for its producer to write in place: the value of the
// top-level pair at index pair (an empty byte sequence in the tree) is
// encoded as size bytes that encodeInto leaves unwritten and points to.
struct Reserved {
    std::size_t pair;
    std::size_t size;
};
MARLET_API std::size_t encodedSize(const std::vector<IOT_NVP> &pairs, const Reserved &reserved);
// Returns where the reserved bytes go.
MARLET_API std::uint8_t *encodeInto(const std::vector<IOT_NVP> &pairs, std::uint8_t *out, std::size_t size,
                                    const Reserved &reserved);

// Convenience for tests and tools: size, allocate, encode.
MARLET_API std::vector<std::uint8_t> encode(const std::vector<IOT_NVP> &pairs);

// Decodes bytes that came from anywhere. Throws DecodeError naming the offset
// and the fault; never reads outside [data, data + size) and never allocates
// more than the input can describe.
MARLET_API std::vector<IOT_NVP> decode(const std::uint8_t *data, std::size_t size);
inline std::vector<IOT_NVP> decode(const std::vector<std::uint8_t> &bytes) {
    return decode(bytes.data(), bytes.size());
}

} // namespace com::quorixtech::marlet::codec
