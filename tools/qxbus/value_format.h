#pragma once
// Readable text for received records: nested pairs indented, byte sequences
// summarised, texts escaped so bytes from the network cannot drive the terminal.

#include <cstddef>
#include <string>
#include <vector>

#include "marlet/iot_value.h"

namespace qxbus {

inline constexpr std::size_t kHeadBytes = 16; // shown of each byte sequence

// Text from the network as it can be shown on a terminal: as it is when it is
// plain printable ASCII without blanks, else quoted with control characters escaped.
std::string printable(const std::string &text);
// Always quoted and escaped, so an empty text shows as "".
std::string quotedText(const std::string &text);

// Hex of the first kHeadBytes bytes, space separated, "..." when there are more.
std::string hexHead(const com::quorixtech::iot::ByteSeq &bytes);

// One line per pair, "name (kind) = value", nested sequences indented by two
// spaces per level and their unnamed entries labelled [0], [1], ...
std::string formatPairs(const std::vector<com::quorixtech::iot::IOT_NVP> &pairs, int indent = 0);

// Size of the record's contents: names, texts and byte sequences at their
// length, numbers at their width. The measure behind `stats` bandwidth.
std::size_t recordBytes(const std::vector<com::quorixtech::iot::IOT_NVP> &pairs);

// "2.5 s", "3 s": seconds as people write them in messages.
std::string secondsText(double seconds);

} // namespace qxbus
