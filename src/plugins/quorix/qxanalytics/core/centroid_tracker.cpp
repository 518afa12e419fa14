#include "centroid_tracker.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace qxanalytics {

std::vector<int> CentroidTracker::assign(const std::vector<cv::Point2f> &centroids) {
    std::vector<std::tuple<float, std::size_t, std::size_t>> pairs; // distance, track, centroid
    for (std::size_t t = 0; t < tracks_.size(); ++t) {
        for (std::size_t c = 0; c < centroids.size(); ++c) {
            const cv::Point2f d = centroids[c] - tracks_[t].position;
            const float distance = std::hypot(d.x, d.y);
            if (distance <= gate_) pairs.emplace_back(distance, t, c);
        }
    }
    std::sort(pairs.begin(), pairs.end());

    std::vector<int> ids(centroids.size(), -1);
    std::vector<bool> trackTaken(tracks_.size(), false);
    for (const auto &[distance, t, c] : pairs) {
        (void)distance;
        if (trackTaken[t] || ids[c] >= 0) continue;
        trackTaken[t] = true;
        ids[c] = tracks_[t].id;
        tracks_[t].position = centroids[c];
        tracks_[t].missed = 0;
    }

    std::vector<Track> survivors;
    for (std::size_t t = 0; t < tracks_.size(); ++t) {
        if (trackTaken[t] || ++tracks_[t].missed <= maxMissed_) survivors.push_back(tracks_[t]);
    }
    for (std::size_t c = 0; c < centroids.size(); ++c) {
        if (ids[c] < 0) {
            ids[c] = nextId_++;
            survivors.push_back({ids[c], centroids[c], 0});
        }
    }
    tracks_ = std::move(survivors);
    return ids;
}

void CentroidTracker::reset() {
    tracks_.clear();
    nextId_ = 0;
}

} // namespace qxanalytics
