#include "digit_time.h"

#include <ctime>
#include <initializer_list>

namespace qxanalytics {

std::uint64_t digitLocalTime(std::chrono::system_clock::time_point when) {
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch());
    const std::time_t seconds = static_cast<std::time_t>(sinceEpoch.count() / 1000);
    const auto millis = static_cast<std::uint64_t>(sinceEpoch.count() % 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::uint64_t digits = static_cast<std::uint64_t>(local.tm_year + 1900);
    for (int part : {local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec})
        digits = digits * 100 + static_cast<std::uint64_t>(part);
    return digits * 1000 + millis;
}

} // namespace qxanalytics
