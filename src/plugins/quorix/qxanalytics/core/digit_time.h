#pragma once
// Frame time stamps in the form the rest of the system reads: local date and time
// as the decimal digits YYYYMMDDhhmmssmmm (20240102030405006), not a count of seconds.

#include <chrono>
#include <cstdint>

namespace qxanalytics {

std::uint64_t digitLocalTime(std::chrono::system_clock::time_point when);

} // namespace qxanalytics
