#pragma once
// Reads a bus sample straight from its serialized (CDR) form, so that a
// received frame is copied once, by the pair decoder, instead of first being
// deserialized into a DDS sample and then decoded again.

#include <cstddef>
#include <cstdint>
#include <string>

namespace com::quorixtech::marlet::detail {

// Views into the serialized bytes; valid while those bytes are.
struct WireView {
    std::string sourceId;
    std::string flowId;
    std::string sessionId;
    std::string tagGroup;
    std::uint64_t sequenceNumber = 0;
    std::int64_t sourceTime = 0;
    const std::uint8_t *payload = nullptr;
    std::size_t payloadSize = 0;
};

// Parses the serialized form of marlet_wire::BusSample (4-byte encapsulation
// header, then the fields in XCDR1 or XCDR2, either byte order). Throws
// DecodeError when the bytes do not hold one.
WireView parseWireSample(const std::uint8_t *data, std::size_t size);

} // namespace com::quorixtech::marlet::detail
