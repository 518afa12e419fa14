// The pair codec on arbitrary bytes: the payload of every bus sample goes
// through it first. It may only fail with DecodeError; whatever it accepts
// must encode again, and the encoding of what that decodes to must be the
// same bytes (the codec accepts some spellings it never writes, such as
// over-long length prefixes, so the first re-encoding may differ from the input).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "marlet/pair_codec.h"

namespace codec = com::quorixtech::marlet::codec;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::vector<com::quorixtech::iot::IOT_NVP> pairs;
    try {
        pairs = codec::decode(data, size);
    } catch (const com::quorixtech::marlet::DecodeError &) {
        return 0;
    }
    const std::vector<std::uint8_t> once = codec::encode(pairs);
    if (once.size() != codec::encodedSize(pairs) || once.size() > size) {
        std::fprintf(stderr, "re-encoding takes %zu bytes, the input %zu\n", once.size(), size);
        std::abort();
    }
    if (codec::encode(codec::decode(once)) != once) {
        std::fprintf(stderr, "decoded pairs encode to other bytes after a second round\n");
        std::abort();
    }
    return 0;
}
