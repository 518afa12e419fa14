// Time stamps for frame records. None of them reads the record.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <sys/time.h>

#include "frame_information.h"

namespace TOLVIXO {

std::string FrameInfo::GetUTCTime() {
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    const std::time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    // Local time despite the name; readers of existing logs expect it.
    char stamp[80];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char text[84];
    std::snprintf(text, sizeof text, "%s:%ld", stamp, static_cast<long>(now.tv_usec / 1000));
    return text;
}

std::int64_t FrameInfo::GetDigitTimeSince1970() {
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch());
    return static_cast<std::int64_t>(ns.count() / 1000000);
}

std::uint64_t FrameInfo::GetDigitUTCTime() {
    using namespace std::chrono;
    const std::time_t now = system_clock::to_time_t(system_clock::now());
    std::tm local{};
    localtime_r(&now, &local);
    // Seconds read before milliseconds, so the difference is never negative.
    const auto sec = duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
    const auto ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    const long long millis = (ms - 1000LL * sec) % 1000;
    char digits[64];
    std::snprintf(digits, sizeof digits, "%d%02d%02d%02d%02d%02d%03lld", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis);
    return std::strtoull(digits, nullptr, 0);
}

} // namespace TOLVIXO
