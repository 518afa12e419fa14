#pragma once
// The serialized (CDR) form of a bus sample, read and written here directly:
// a received frame is copied once, by the pair decoder, instead of first
// being deserialized into a DDS sample; a sent one is encoded once, into the
// bytes DDS sends.

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

// The header fields of a sample to send.
struct WireHeader {
    const std::string &sourceId;
    const std::string &flowId;
    const std::string &sessionId;
    const std::string &tagGroup;
    std::uint64_t sequenceNumber;
    std::int64_t sourceTime;
};

// Size of the serialized form this library sends (XCDR1, little endian) for a
// payload of payloadSize bytes: a multiple of 4, padding included.
std::size_t wireSampleSize(const WireHeader &header, std::size_t payloadSize);

// Writes that form into out (wireSampleSize bytes), all but the payload's
// bytes; returns where they go.
std::uint8_t *writeWireSample(const WireHeader &header, std::size_t payloadSize, std::uint8_t *out);

} // namespace com::quorixtech::marlet::detail
