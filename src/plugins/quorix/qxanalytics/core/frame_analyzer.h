#pragma once
// Finds distinct objects in a downscaled luma picture without any model file:
// pixels that stand out from the dominant background level are foreground,
// their outer contours are the objects.

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

// luma: CV_8UC1 working picture; frameSize: the full frame it was scaled from.
ForegroundResult findForeground(const cv::Mat &luma, cv::Size frameSize, const AnalyzerSettings &settings);

// Size of the coverage mask for a frame: maskWidth wide (never wider than the frame), height by aspect, >= 1.
cv::Size maskSizeFor(cv::Size frameSize, int maskWidth);

} // namespace qxanalytics
