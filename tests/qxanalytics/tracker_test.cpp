// Object ids across frames, without pictures.

#include <vector>

#include <gtest/gtest.h>

#include "centroid_tracker.h"
#include "digit_time.h"

namespace {

using Frame = std::vector<cv::Point2f>;

struct TrackCase {
    const char *name;
    std::vector<Frame> frames;
    std::vector<std::vector<int>> ids; // expected ids, frame by frame
};

class CentroidTracking : public ::testing::TestWithParam<TrackCase> {};

TEST_P(CentroidTracking, AssignsIds) {
    const TrackCase &c = GetParam();
    qxanalytics::CentroidTracker tracker(50.f, 2);
    for (std::size_t i = 0; i < c.frames.size(); ++i)
        EXPECT_EQ(tracker.assign(c.frames[i]), c.ids[i]) << "frame " << i;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CentroidTracking,
    ::testing::Values(
        // Ids follow positions, not the order in which objects are listed.
        TrackCase{"order_swapped", {{{10, 10}, {200, 200}}, {{205, 195}, {15, 12}}}, {{0, 1}, {1, 0}}},
        // The nearest pair wins even when another track is also within reach.
        TrackCase{"closest_first", {{{100, 100}, {140, 100}}, {{135, 100}, {101, 100}}}, {{0, 1}, {1, 0}}},
        // A jump beyond the gate is a new object.
        TrackCase{"jump_beyond_gate", {{{10, 10}}, {{100, 10}}}, {{0}, {1}}},
        // Missing for up to maxMissed frames keeps the id; longer starts a new one.
        TrackCase{"short_gap", {{{10, 10}}, {}, {}, {{12, 10}}}, {{0}, {}, {}, {0}}},
        TrackCase{"long_gap", {{{10, 10}}, {}, {}, {}, {{12, 10}}}, {{0}, {}, {}, {}, {1}}},
        // A new object next to a tracked one gets its own id.
        TrackCase{"newcomer", {{{10, 10}}, {{12, 10}, {300, 300}}}, {{0}, {0, 1}}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(DigitLocalTime, WritesDateAndTimeAsDigits) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    // 2024-01-02 03:04:05.006 UTC
    const auto when = std::chrono::system_clock::time_point(std::chrono::milliseconds(1704164645006LL));
    EXPECT_EQ(qxanalytics::digitLocalTime(when), 20240102030405006ULL);
}

} // namespace
