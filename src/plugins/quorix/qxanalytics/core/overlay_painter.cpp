#include "overlay_painter.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace qxanalytics {
namespace {

constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr double kFontScale = 0.45;
constexpr int kTextThickness = 1;
constexpr int kTextPadding = 2;

cv::Scalar toScalar(const Colour &colour, ChannelOrder order, int channels) {
    const double first = order == ChannelOrder::Rgb ? colour.r : colour.b;
    const double third = order == ChannelOrder::Rgb ? colour.b : colour.r;
    return channels == 4 ? cv::Scalar(first, colour.g, third, 255) : cv::Scalar(first, colour.g, third);
}

int clampInt(float value, int low, int high) { return std::clamp(static_cast<int>(std::lround(value)), low, high); }

// A filled band with text on it; the band's top-left corner is at origin.
void paintLabel(cv::Mat &picture, const std::string &text, cv::Point origin, const cv::Scalar &band,
                const cv::Scalar &ink) {
    int baseline = 0;
    const cv::Size size = cv::getTextSize(text, kFont, kFontScale, kTextThickness, &baseline);
    const cv::Rect area(origin.x, origin.y, size.width + 2 * kTextPadding, size.height + baseline + 2 * kTextPadding);
    cv::rectangle(picture, area & cv::Rect(0, 0, picture.cols, picture.rows), band, cv::FILLED);
    cv::putText(picture, text, cv::Point(origin.x + kTextPadding, origin.y + kTextPadding + size.height), kFont,
                kFontScale, ink, kTextThickness, cv::LINE_8);
}

} // namespace

cv::Rect maskCellRect(cv::Size picture, int rows, int row, int columns, int column) {
    const int x0 = static_cast<int>(static_cast<long long>(column) * picture.width / columns);
    const int x1 = static_cast<int>(static_cast<long long>(column + 1) * picture.width / columns);
    const int y0 = static_cast<int>(static_cast<long long>(row) * picture.height / rows);
    const int y1 = static_cast<int>(static_cast<long long>(row + 1) * picture.height / rows);
    return {x0, y0, x1 - x0, y1 - y0};
}

void paintMask(cv::Mat &picture, const CellMask &mask, const PaintStyle &style, ChannelOrder order) {
    if (mask.empty() || style.alpha <= 0.0) return;
    const cv::Scalar tint = toScalar(style.maskTint, order, picture.channels()) * style.alpha;
    const double keep = 1.0 - style.alpha;
    const int rows = static_cast<int>(mask.size());
    for (int r = 0; r < rows; ++r) {
        const auto &cells = mask[static_cast<std::size_t>(r)];
        const int columns = static_cast<int>(cells.size());
        // Neighbouring tinted cells are blended as one rectangle: far fewer calls on wide masks.
        int c = 0;
        while (c < columns) {
            if (!cells[static_cast<std::size_t>(c)]) {
                ++c;
                continue;
            }
            const int start = c;
            while (c < columns && cells[static_cast<std::size_t>(c)])
                ++c;
            const cv::Rect first = maskCellRect(picture.size(), rows, r, columns, start);
            const cv::Rect last = maskCellRect(picture.size(), rows, r, columns, c - 1);
            const cv::Rect run(first.x, first.y, last.x + last.width - first.x, first.height);
            if (run.area() <= 0) continue;
            cv::Mat region = picture(run);
            region.convertTo(region, -1, keep, 0.0);
            cv::add(region, tint, region);
        }
    }
}

void paintBoxes(cv::Mat &picture, const std::vector<PaintBox> &boxes, const PaintStyle &style, ChannelOrder order) {
    const cv::Scalar colour = toScalar(style.boxColour, order, picture.channels());
    const cv::Scalar ink = toScalar(Colour{0, 0, 0}, order, picture.channels());
    const int lastX = picture.cols - 1;
    const int lastY = picture.rows - 1;
    for (const auto &item : boxes) {
        if (!(item.box.width >= 0.f && item.box.height >= 0.f)) // also rejects NaN from bad producers
            continue;
        const cv::Point topLeft(clampInt(item.box.x, 0, lastX), clampInt(item.box.y, 0, lastY));
        const cv::Point bottomRight(clampInt(item.box.x + item.box.width, 0, lastX),
                                    clampInt(item.box.y + item.box.height, 0, lastY));
        cv::rectangle(picture, topLeft, bottomRight, colour, style.lineWidth, cv::LINE_8);
        if (!style.drawLabels || item.text.empty()) continue;
        int baseline = 0;
        const cv::Size size = cv::getTextSize(item.text, kFont, kFontScale, kTextThickness, &baseline);
        const int bandHeight = size.height + baseline + 2 * kTextPadding;
        const int halfLine = (style.lineWidth + 1) / 2;
        // Above the box when it fits, otherwise just inside its top edge.
        const int top =
            topLeft.y - halfLine - bandHeight >= 0 ? topLeft.y - halfLine - bandHeight : topLeft.y + halfLine;
        paintLabel(picture, item.text, cv::Point(std::max(0, topLeft.x - halfLine), top), colour, ink);
    }
}

void paintCaption(cv::Mat &picture, const std::vector<std::string> &lines, ChannelOrder order) {
    const cv::Scalar band = toScalar(Colour{0, 0, 0}, order, picture.channels());
    const cv::Scalar ink = toScalar(Colour{255, 255, 255}, order, picture.channels());
    int top = 0;
    for (const auto &line : lines) {
        int baseline = 0;
        const cv::Size size = cv::getTextSize(line, kFont, kFontScale, kTextThickness, &baseline);
        paintLabel(picture, line, cv::Point(0, top), band, ink);
        top += size.height + baseline + 2 * kTextPadding;
    }
}

} // namespace qxanalytics
