#include <gtest/gtest.h>
#include <opencv2/core/utility.hpp>

#include "calcfps.h"

TEST(RecordsFpsCalc, WarmUpThenSteadyRate) {
    TOLVIXO::FPSCalc meter;
    const double step = cv::getTickFrequency() / 25.0;
    double tick = 1000.0;
    for (int call = 1; call <= 30; ++call, tick += step)
        ASSERT_EQ(meter.showFPS(tick), "accumulated " + std::to_string(call) + " frame. <Base = 30>");
    for (int call = 31; call <= 100; ++call, tick += step)
        ASSERT_EQ(meter.showFPS(tick), "25.000000") << call;
}

TEST(RecordsFpsCalc, RateLagsOneFrameOverATwentyNineIntervalWindow) {
    TOLVIXO::FPSCalc meter;
    const double f = cv::getTickFrequency();
    double tick = 0.0;
    for (int call = 1; call <= 30; ++call, tick += f / 10.0)
        meter.showFPS(tick);
    tick -= f / 10.0;
    // One long gap: not yet in the rate of this call, in the next one.
    tick += f * 30.0;
    EXPECT_EQ(meter.showFPS(tick), "10.000000");
    tick += f / 10.0;
    // Window now holds 28 intervals of 0.1 s and one of 30 s.
    char expected[32];
    std::snprintf(expected, sizeof expected, "%f", 29.0 / (28 * 0.1 + 30.0));
    EXPECT_EQ(meter.showFPS(tick), expected);
    tick += f / 10.0;
    // The gap leaves the window with the 29th call after it entered; the rate
    // of that call still includes it, the next one's no longer does.
    for (int call = 33; call < 60; ++call, tick += f / 10.0)
        meter.showFPS(tick);
    EXPECT_NE(meter.showFPS(tick), "10.000000");
    tick += f / 10.0;
    EXPECT_EQ(meter.showFPS(tick), "10.000000");
}
