#include "calcfps.h"

#include <cstdio>
#include <stdexcept>

#include <opencv2/core/utility.hpp>

namespace TOLVIXO {

namespace {
constexpr int kWindowBase = 30;
}

FPSCalc::FPSCalc() : count_(0), lastTick_(0.0), intervalSum_(0.0) {}

FPSCalc::~FPSCalc() = default;

std::string FPSCalc::showFPS(double tick) {
    if (count_ < kWindowBase) {
        // The first call has no predecessor, so the window ends warm-up with
        // 29 intervals and keeps that length.
        if (count_ > 0) {
            const double interval = tick - lastTick_;
            intervalSum_ += interval;
            intervals_.push_back(interval);
        }
        ++count_;
        lastTick_ = tick;
        return "accumulated " + std::to_string(count_) + " frame. <Base = " + std::to_string(kWindowBase) + ">";
    }

    // The rate is taken before the newest interval enters the window, so it
    // lags one frame; log readers compare against earlier runs that did too.
    const double rate = cv::getTickFrequency() / (intervalSum_ / static_cast<double>(intervals_.size()));
    const double interval = tick - lastTick_;
    intervalSum_ = intervalSum_ - intervals_.at(0) + interval;
    intervals_.erase(intervals_.begin());
    intervals_.push_back(interval);
    ++count_;
    lastTick_ = tick;

    char text[64];
    std::snprintf(text, sizeof text, "%f", rate);
    return text;
}

} // namespace TOLVIXO
