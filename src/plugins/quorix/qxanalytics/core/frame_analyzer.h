#pragma once
// Finds objects in a downscaled luma picture without any model file: foreground pixels
// (distinct from the background level, or changed against earlier frames) are grouped
// by their outer contours into objects and a coverage mask.

#include <vector>

#include <opencv2/core.hpp>

namespace qxanalytics {

struct AnalyzerSettings {
    // Smallest object kept, as a share of the picture's area; smaller blobs are noise.
    double minAreaFraction = 0.0002;
    // At most this many objects per frame, the largest first.
    int maxObjects = 16;
    // A pixel must differ from the background level by at least this much, so a flat
    // or noisy picture does not split into random objects.
    int minContrast = 24;
    // Width of the coverage mask; 0 leaves the mask empty. Its height follows the picture's aspect.
    int maskWidth = 64;
};

struct DetectedObject {
    cv::Rect2f box;           // in pixels of the full frame
    cv::Point2f centroid;     // in pixels of the full frame
    float solidity = 0.f;     // contour area / convex hull area, 0..1
    float areaFraction = 0.f; // contour area / picture area
};

struct ForegroundResult {
    std::vector<DetectedObject> objects;
    // maskWidth x maskHeight, each cell the share of it covered by kept objects (0..255);
    // empty when maskWidth is 0.
    cv::Mat coverage;
};

// Pixels (255) that stand out from the picture's dominant level, by Otsu's threshold on the
// distance from the median level but never by less than minContrast. Finds still objects.
cv::Mat distinctPixels(const cv::Mat &luma, int minContrast);

// Pixels (255) that differ by at least minContrast from the background: the per-pixel median
// of frames sampled over a window. Finds moving objects and ignores a still, textured scene.
// While the window holds few samples, an object that moved less than its size between them is
// in most of them and shows as a ghost where it was; from five samples (33 frames) on, only an
// object that stays on a pixel for half the window (36 frames) becomes background.
class MotionBackground {
  public:
    cv::Mat changedPixels(const cv::Mat &luma, int minContrast);
    void reset();

    static constexpr std::size_t kHistory = 9; // frames in the median
    static constexpr int kSampleEvery = 8;     // frames between samples: a window of 72 frames

  private:
    void learn(const cv::Mat &luma);

    std::vector<cv::Mat> history_;
    cv::Mat background_;
    long framesSeen_ = 0;
};

// Objects are the outer contours of the foreground pixels (CV_8UC1, 0/255, working size);
// frameSize: the full frame the working picture was scaled from.
ForegroundResult describeForeground(const cv::Mat &foreground, cv::Size frameSize, const AnalyzerSettings &settings);

// Size of the coverage mask for a frame: maskWidth wide (never wider than the frame), height by aspect, >= 1.
cv::Size maskSizeFor(cv::Size frameSize, int maskWidth);

} // namespace qxanalytics
