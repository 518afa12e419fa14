// The reader of serialized bus samples on arbitrary bytes, as a reader thread
// meets them: the header first, then the pair codec on the payload it points
// at. Both may only fail with DecodeError, and the payload must lie inside
// the input.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "marlet/pair_codec.h"
#include "wire_view.h"

namespace marlet = com::quorixtech::marlet;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    try {
        const marlet::detail::WireView view = marlet::detail::parseWireSample(data, size);
        if (view.payload < data || view.payload + view.payloadSize > data + size) {
            std::fprintf(stderr, "payload of %zu bytes outside the %zu input bytes\n", view.payloadSize, size);
            std::abort();
        }
        marlet::codec::decode(view.payload, view.payloadSize);
    } catch (const marlet::DecodeError &) {
    }
    return 0;
}
