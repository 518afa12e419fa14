#pragma once
// Turns the first frame entry of a batch record into what the overlay paints:
// boxes scaled to the picture, their labels, caption lines and the mask cells.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "gstqxmeta.h"
#include "overlay_painter.h"

namespace qxanalytics {

struct PaintPlan {
    std::vector<PaintBox> boxes;
    std::vector<std::string> caption;
    CellMask mask;
    bool empty() const { return boxes.empty() && caption.empty() && mask.empty(); }
};

// picture: the size of the video being drawn on. Boxes were computed on a frame of
// frame.width x frame.height; when that differs (a scaler in between), they are scaled.
PaintPlan planPainting(const VideoFrameData &frame, cv::Size picture);

// A mask cell is painted unless it is background: labelled "background", or unlabelled with class 0.
bool isForegroundCell(const quorix::ai::SegmentResult &cell);

} // namespace qxanalytics
