// One record decoder (QX_FUZZ_RECORD names the record) fed with the payload of
// a bus sample, the way a reader thread meets it: the pair codec decodes the
// bytes, the record decoder walks the pairs. The only failures allowed are the
// clear ones a reader reports and survives: DecodeError from the codec and
// IotKindError from a pair of the wrong kind. Anything else escapes and
// counts as a crash.
//
// A record that decodes is also dumped as text and put through encode and
// decode once more, which must reach a fixed point: a decoder that drops or
// mixes up a field shows up here even when nothing crashes.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <vector>

#include "frame_information.h"
#include "marlet/pair_codec.h"
#include "uni_information.h"

namespace {

namespace codec = com::quorixtech::marlet::codec;
using com::quorixtech::iot::IotKindError;
using com::quorixtech::marlet::DecodeError;
using Pairs = std::vector<com::quorixtech::iot::IOT_NVP>;

using FrameInfo = TOLVIXO::FrameInfo;
using DeviceInfo = TOLVIXO::DeviceInfo;
using ClassificationInfo = TOLVIXO::Information<TOLVIXO::ClassificationData>;
using DetectionInfo = TOLVIXO::Information<TOLVIXO::DetectionBoxData>;
using SegmentInfo = TOLVIXO::SegmentInfo;
using UniInfo = TOLVIXO::UniInfo;
using Record = QX_FUZZ_RECORD;

// As the reader threads do: the pairs are handed over, the combined record
// comes from its own Decode of a whole sample.
template <typename R = Record> R decodeRecord(Pairs pairs) {
    if constexpr (std::is_same_v<R, UniInfo>) {
        return UniInfo::Decode(
            com::quorixtech::marlet::DataSample<Pairs>(std::move(pairs), "fuzz", "", "fuzz:uni", 1, 0));
    } else {
        R record;
        TOLVIXO::DecodeRecord(std::move(pairs), record);
        return record;
    }
}

// The text dumps print received values; the combined record has none.
template <typename R> void dump(R &record) {
    if constexpr (!std::is_same_v<R, UniInfo>) {
        volatile std::size_t length = record.GetString().size();
        (void)length;
    }
}

std::vector<std::uint8_t> reencode(const Record &record) { return codec::encode(record.Encode()); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Record record;
    try {
        record = decodeRecord(codec::decode(data, size));
    } catch (const DecodeError &) {
        return 0;
    } catch (const IotKindError &) {
        return 0;
    }
    dump(record);
    // One round may lose what the encoder never writes (the combined record's
    // box engine id travels under another name); after that nothing may change.
    const std::vector<std::uint8_t> once = reencode(decodeRecord(codec::decode(reencode(record))));
    const std::vector<std::uint8_t> twice = reencode(decodeRecord(codec::decode(once)));
    if (once != twice) {
        std::fprintf(stderr, "record changed between two encode/decode rounds (%zu vs %zu bytes)\n", once.size(),
                     twice.size());
        std::abort();
    }
    return 0;
}
