#pragma once
// What the subscriber measured, and how frame time stamps turn into latency.

#include <cstdint>
#include <string>
#include <vector>

namespace qxdemo {

// Frame time stamps travel as local date and time digits YYYYMMDDhhmmssmmm;
// returns milliseconds since 1970, or -1 when the value is not of that form.
std::int64_t digitTimeToEpochMs(std::uint64_t digits);
std::int64_t nowEpochMs();

struct LatencySummary {
    double median = 0;
    double p99 = 0;
    std::size_t count = 0;
};
LatencySummary summarise(std::vector<double> samples);

} // namespace qxdemo
