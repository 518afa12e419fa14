#include "scene_classifier.h"

#include <algorithm>

namespace qxanalytics {

SceneVerdict classifyScene(const cv::Mat &luma, const cv::Mat &cb, const cv::Mat &cr) {
    SceneVerdict verdict;
    if (luma.empty()) return verdict;
    verdict.meanLuma = static_cast<float>(cv::mean(luma)[0]);
    if (!cb.empty() && !cr.empty() && cb.size() == luma.size() && cr.size() == luma.size()) {
        cv::Mat blue, red, chroma;
        cb.convertTo(blue, CV_32F, 1.0, -128.0);
        cr.convertTo(red, CV_32F, 1.0, -128.0);
        cv::magnitude(blue, red, chroma);
        verdict.colourfulness = static_cast<float>(cv::mean(chroma)[0]);
    }

    if (verdict.colourfulness >= kColourfulChroma) {
        verdict.cls = SceneClass::Colourful;
        verdict.label = "colourful";
        verdict.probability =
            std::min(1.f, 0.5f + 0.5f * (verdict.colourfulness - kColourfulChroma) / kColourfulChroma);
    } else if (verdict.meanLuma < 128.f) {
        verdict.cls = SceneClass::Dark;
        verdict.label = "dark";
        verdict.probability = 0.5f + 0.5f * (128.f - verdict.meanLuma) / 128.f;
    } else {
        verdict.cls = SceneClass::Bright;
        verdict.label = "bright";
        verdict.probability = 0.5f + 0.5f * (verdict.meanLuma - 128.f) / 127.f;
    }
    return verdict;
}

} // namespace qxanalytics
