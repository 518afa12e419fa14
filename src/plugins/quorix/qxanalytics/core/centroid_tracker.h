#pragma once
// Gives objects ids that persist from frame to frame: each object takes the id of
// the nearest track of the previous frames within a gate, closest pairs first.

#include <vector>

#include <opencv2/core.hpp>

namespace qxanalytics {

class CentroidTracker {
  public:
    // gate: the largest jump (pixels) an object may make between frames and keep its id;
    // maxMissed: frames a track survives without a match (short occlusions, missed detections).
    explicit CentroidTracker(float gate = 64.f, int maxMissed = 5) : gate_(gate), maxMissed_(maxMissed) {}

    // Returns one id per centroid, in the same order.
    std::vector<int> assign(const std::vector<cv::Point2f> &centroids);
    void setGate(float gate) { gate_ = gate; }
    void reset();

  private:
    struct Track {
        int id;
        cv::Point2f position;
        int missed;
    };
    float gate_;
    int maxMissed_;
    int nextId_ = 0;
    std::vector<Track> tracks_;
};

} // namespace qxanalytics
