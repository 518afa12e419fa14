#pragma once
// Turns a mapped raw video frame into small luma and chroma planes for analysis,
// so the cost of analysing a frame depends on the working width, not the frame size.

#include <gst/video/video.h>

#include <opencv2/core.hpp>

namespace qxanalytics {

struct SampledPlanes {
    cv::Mat luma; // CV_8UC1, working size
    cv::Mat cb;   // CV_8UC1, working size, 128 = no blue-difference
    cv::Mat cr;   // CV_8UC1, working size, 128 = no red-difference
};

// Working size: analysisWidth wide (never wider than the frame), height by aspect.
cv::Size workingSize(int frameWidth, int frameHeight, int analysisWidth);

// Supports BGR, RGB, BGRx, RGBx, I420 and NV12; returns false for any other format.
bool sampleFrame(const GstVideoFrame &frame, int analysisWidth, SampledPlanes &planes);

} // namespace qxanalytics
