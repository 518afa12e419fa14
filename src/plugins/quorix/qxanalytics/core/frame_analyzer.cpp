#include "frame_analyzer.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace qxanalytics {
namespace {

// The most common level is the background; the median of the histogram is robust
// against a few large objects and cheap on 8-bit data.
int medianLevel(const cv::Mat &luma) {
    int histogram[256] = {0};
    for (int y = 0; y < luma.rows; ++y) {
        const uchar *row = luma.ptr<uchar>(y);
        for (int x = 0; x < luma.cols; ++x)
            ++histogram[row[x]];
    }
    const long half = (static_cast<long>(luma.total()) + 1) / 2;
    long seen = 0;
    for (int level = 0; level < 256; ++level) {
        seen += histogram[level];
        if (seen >= half) return level;
    }
    return 255;
}

struct Candidate {
    std::vector<cv::Point> contour;
    double area;
};

} // namespace

cv::Size maskSizeFor(cv::Size frameSize, int maskWidth) {
    if (maskWidth <= 0 || frameSize.width <= 0 || frameSize.height <= 0) return {0, 0};
    const int width = std::min(maskWidth, frameSize.width);
    const int height =
        std::max(1, static_cast<int>(std::lround(static_cast<double>(width) * frameSize.height / frameSize.width)));
    return {width, height};
}

cv::Mat distinctPixels(const cv::Mat &luma, int minContrast) {
    cv::Mat deviation;
    cv::absdiff(luma, cv::Scalar(medianLevel(luma)), deviation);
    cv::Mat foreground;
    const double otsu = cv::threshold(deviation, foreground, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
    if (otsu < minContrast) cv::threshold(deviation, foreground, minContrast - 1, 255, cv::THRESH_BINARY);
    return foreground;
}

cv::Mat MotionBackground::changedPixels(const cv::Mat &luma, int minContrast) {
    if (!history_.empty() && history_.front().size() != luma.size()) reset();
    if (framesSeen_++ % kSampleEvery == 0) learn(luma);
    cv::Mat difference, foreground;
    cv::absdiff(luma, background_, difference);
    cv::threshold(difference, foreground, minContrast - 1, 255, cv::THRESH_BINARY);
    return foreground;
}

void MotionBackground::learn(const cv::Mat &luma) {
    if (history_.size() == kHistory) history_.erase(history_.begin());
    history_.push_back(luma.clone());
    // The per-pixel median of the sampled frames: an object that crosses a pixel in less than
    // half the window never becomes background, so moving objects leave neither trail nor ghost.
    background_.create(luma.size(), CV_8UC1);
    const std::size_t count = history_.size();
    unsigned char values[kHistory];
    for (int y = 0; y < luma.rows; ++y) {
        unsigned char *out = background_.ptr<unsigned char>(y);
        for (int x = 0; x < luma.cols; ++x) {
            for (std::size_t i = 0; i < count; ++i)
                values[i] = history_[i].ptr<unsigned char>(y)[x];
            std::nth_element(values, values + count / 2, values + count);
            out[x] = values[count / 2];
        }
    }
}

void MotionBackground::reset() {
    history_.clear();
    background_.release();
    framesSeen_ = 0;
}

ForegroundResult describeForeground(const cv::Mat &foreground, cv::Size frameSize, const AnalyzerSettings &settings) {
    ForegroundResult result;
    if (foreground.empty() || foreground.type() != CV_8UC1) return result;
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(foreground, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);

    const double pictureArea = static_cast<double>(foreground.total());
    const double minArea = std::max(6.0, settings.minAreaFraction * pictureArea);
    std::vector<Candidate> candidates;
    for (auto &contour : contours) {
        // The polygon through the boundary pixels' centres misses about half a pixel all
        // round, which matters for objects a few working pixels wide (a ball at 1080p);
        // adding half the perimeter counts the blob's pixels closely.
        const double area = cv::contourArea(contour) + cv::arcLength(contour, true) / 2.0 + 1.0;
        if (area >= minArea) candidates.push_back({std::move(contour), area});
    }
    std::sort(candidates.begin(), candidates.end(),
              [](const Candidate &a, const Candidate &b) { return a.area > b.area; });
    if (static_cast<int>(candidates.size()) > settings.maxObjects)
        candidates.resize(static_cast<std::size_t>(std::max(0, settings.maxObjects)));

    const float scaleX = static_cast<float>(frameSize.width) / static_cast<float>(foreground.cols);
    const float scaleY = static_cast<float>(frameSize.height) / static_cast<float>(foreground.rows);
    cv::Mat kept = cv::Mat::zeros(foreground.size(), CV_8UC1);
    std::vector<std::vector<cv::Point>> keptContours;
    for (const auto &candidate : candidates) {
        std::vector<cv::Point> hull;
        cv::convexHull(candidate.contour, hull);
        const double hullArea = cv::contourArea(hull);
        const cv::Rect bounds = cv::boundingRect(candidate.contour);
        const cv::Moments moments = cv::moments(candidate.contour);

        DetectedObject object;
        object.box = cv::Rect2f(bounds.x * scaleX, bounds.y * scaleY, bounds.width * scaleX, bounds.height * scaleY);
        object.centroid = moments.m00 > 0 ? cv::Point2f(static_cast<float>(moments.m10 / moments.m00) * scaleX,
                                                        static_cast<float>(moments.m01 / moments.m00) * scaleY)
                                          : cv::Point2f((bounds.x + bounds.width / 2.f) * scaleX,
                                                        (bounds.y + bounds.height / 2.f) * scaleY);
        object.solidity =
            hullArea > 0 ? static_cast<float>(std::min(1.0, cv::contourArea(candidate.contour) / hullArea)) : 0.f;
        object.areaFraction = static_cast<float>(candidate.area / pictureArea);
        result.objects.push_back(object);
        keptContours.push_back(candidate.contour);
    }

    const cv::Size maskSize = maskSizeFor(frameSize, settings.maskWidth);
    if (maskSize.area() > 0) {
        cv::drawContours(kept, keptContours, -1, cv::Scalar(255), cv::FILLED);
        cv::resize(kept, result.coverage, maskSize, 0, 0, cv::INTER_AREA);
    }
    return result;
}

} // namespace qxanalytics
