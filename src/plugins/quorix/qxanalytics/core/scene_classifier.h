#pragma once
// Names the look of a whole frame from its luma and chroma statistics.

#include <string>

#include <opencv2/core.hpp>

namespace qxanalytics {

enum class SceneClass { Dark = 0, Bright = 1, Colourful = 2 };

struct SceneVerdict {
    SceneClass cls = SceneClass::Dark;
    std::string label;         // "dark", "bright" or "colourful"
    float probability = 0.f;   // 0.5..1: how far the statistics are from the decision boundary
    float meanLuma = 0.f;      // 0..255
    float colourfulness = 0.f; // mean chroma distance from grey, 0..~180
};

// Chroma at least this far from grey on average makes a frame colourful, whatever its brightness.
constexpr float kColourfulChroma = 20.f;

// luma, cb, cr: CV_8UC1 of one size; cb/cr may be empty (grey pictures).
SceneVerdict classifyScene(const cv::Mat &luma, const cv::Mat &cb, const cv::Mat &cr);

} // namespace qxanalytics
