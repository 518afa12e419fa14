#include "demo_stats.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>

namespace qxdemo {

std::int64_t digitTimeToEpochMs(std::uint64_t digits) {
    if (digits < 10000000000000000ULL || digits > 99991231235959999ULL) return -1;
    const int ms = static_cast<int>(digits % 1000);
    std::uint64_t rest = digits / 1000;
    std::tm tm{};
    tm.tm_sec = static_cast<int>(rest % 100);
    rest /= 100;
    tm.tm_min = static_cast<int>(rest % 100);
    rest /= 100;
    tm.tm_hour = static_cast<int>(rest % 100);
    rest /= 100;
    tm.tm_mday = static_cast<int>(rest % 100);
    rest /= 100;
    tm.tm_mon = static_cast<int>(rest % 100) - 1;
    rest /= 100;
    tm.tm_year = static_cast<int>(rest) - 1900;
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    if (t == static_cast<std::time_t>(-1)) return -1;
    return static_cast<std::int64_t>(t) * 1000 + ms;
}

std::int64_t nowEpochMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

LatencySummary summarise(std::vector<double> samples) {
    LatencySummary s;
    s.count = samples.size();
    if (samples.empty()) return s;
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) {
        const std::size_t idx = std::min(samples.size() - 1, static_cast<std::size_t>(std::ceil(q * samples.size())) - 1);
        return samples[idx];
    };
    s.median = at(0.5);
    s.p99 = at(0.99);
    return s;
}

} // namespace qxdemo
