#include "result_painting.h"

#include <cstdio>

namespace qxanalytics {
namespace {

std::string withProbability(const std::string &text, float prob) {
    char number[32];
    std::snprintf(number, sizeof(number), " %.2f", static_cast<double>(prob));
    return text + number;
}

} // namespace

bool isForegroundCell(const quorix::ai::SegmentResult &cell) {
    if (cell.label.empty()) return cell.class_id != 0;
    return cell.label != "background";
}

PaintPlan planPainting(const VideoFrameData &frame, cv::Size picture) {
    PaintPlan plan;
    const float scaleX = frame.width > 0 ? static_cast<float>(picture.width) / static_cast<float>(frame.width) : 1.f;
    const float scaleY = frame.height > 0 ? static_cast<float>(picture.height) / static_cast<float>(frame.height) : 1.f;
    for (const auto &result : frame.det_results) {
        PaintBox item;
        item.box = cv::Rect2f(result.x1 * scaleX, result.y1 * scaleY, (result.x2 - result.x1) * scaleX,
                              (result.y2 - result.y1) * scaleY);
        const std::string &name = result.obj_label.empty() ? result.class_label : result.obj_label;
        item.text = withProbability(name + " #" + std::to_string(result.obj_id), result.prob);
        plan.boxes.push_back(std::move(item));
    }
    for (const auto &result : frame.class_results)
        plan.caption.push_back(withProbability(result.label.empty() ? result.output : result.label, result.prob));

    bool anyForeground = false;
    plan.mask.reserve(frame.seg_results.size());
    for (const auto &row : frame.seg_results) {
        std::vector<bool> cells(row.size());
        for (std::size_t i = 0; i < row.size(); ++i) {
            cells[i] = isForegroundCell(row[i]);
            anyForeground = anyForeground || cells[i];
        }
        plan.mask.push_back(std::move(cells));
    }
    if (!anyForeground) plan.mask.clear();
    return plan;
}

} // namespace qxanalytics
