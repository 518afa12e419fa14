// Guards the frame-rate meter whose figures operators compare between runs:
// the warm-up text, the steady rate, and a window of 29 intervals whose rate
// lags one frame.

#include <cstdio>

#include <gtest/gtest.h>
#include <opencv2/core/utility.hpp>

#include "calcfps.h"

TEST(RecordsFpsCalc, WarmsUpThenRatesTheLastTwentyNineIntervalsOneFrameLate) {
    TOLVIXO::FPSCalc meter;
    const double second = cv::getTickFrequency();
    double tick = 1000.0;
    for (int call = 1; call <= 40; ++call, tick += second / 10)
        ASSERT_EQ(meter.showFPS(tick),
                  call <= 30 ? "accumulated " + std::to_string(call) + " frame. <Base = 30>" : "10.000000");
    // One gap of 30 s: not yet in the rate of this call, in the next one's.
    tick += 30 * second - second / 10;
    EXPECT_EQ(meter.showFPS(tick), "10.000000");
    char expected[32];
    std::snprintf(expected, sizeof expected, "%f", 29.0 / (28 * 0.1 + 30.0));
    EXPECT_EQ(meter.showFPS(tick += second / 10), expected);
    // The gap leaves the window 29 calls after it entered.
    for (int call = 0; call < 27; ++call)
        meter.showFPS(tick += second / 10);
    EXPECT_NE(meter.showFPS(tick += second / 10), "10.000000");
    EXPECT_EQ(meter.showFPS(tick += second / 10), "10.000000");
}
