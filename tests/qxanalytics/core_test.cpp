// The tracker and the clock on their own. Guards against: ids that jump between objects, survive a jump no object
// makes or are lost over a short gap; and frame timestamps whose date and time digits are wrong.

#include <chrono>
#include <cstdlib>

#include <gtest/gtest.h>

#include "centroid_tracker.h"
#include "digit_time.h"

namespace {

TEST(CentroidTracker, KeepsIdsWithTheirObjects) {
    using Frames = std::vector<std::vector<cv::Point2f>>;
    // Centroids frame by frame, and the ids expected for them (gate 50, up to 2 frames missed).
    const std::vector<std::pair<Frames, std::vector<std::vector<int>>>> cases = {
        {{{{10, 10}, {200, 200}}, {{205, 195}, {15, 12}}}, {{0, 1}, {1, 0}}},     // positions count, not list order
        {{{{100, 100}, {140, 100}}, {{135, 100}, {101, 100}}}, {{0, 1}, {1, 0}}}, // the nearest pair wins
        {{{{10, 10}}, {{100, 10}}}, {{0}, {1}}},                                  // beyond the gate: a new object
        {{{{10, 10}}, {}, {}, {{12, 10}}}, {{0}, {}, {}, {0}}},                   // a short gap keeps the id
        {{{{10, 10}}, {}, {}, {}, {{12, 10}}}, {{0}, {}, {}, {}, {1}}},           // a long gap loses it
        {{{{10, 10}}, {{12, 10}, {300, 300}}}, {{0}, {0, 1}}}};                   // a newcomer gets its own id
    for (std::size_t c = 0; c < cases.size(); ++c) {
        qxanalytics::CentroidTracker tracker(50.f, 2);
        for (std::size_t i = 0; i < cases[c].first.size(); ++i)
            EXPECT_EQ(tracker.assign(cases[c].first[i]), cases[c].second[i]) << "case " << c << ", frame " << i;
    }
}

TEST(DigitLocalTime, WritesDateAndTimeAsDigits) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const auto when = std::chrono::system_clock::time_point(std::chrono::milliseconds(1704164645006LL));
    EXPECT_EQ(qxanalytics::digitLocalTime(when), 20240102030405006ULL); // 2024-01-02 03:04:05.006 UTC
}

} // namespace
