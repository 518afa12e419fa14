#pragma once
// Draws analysis results onto a packed 8-bit picture (3 or 4 bytes per pixel) in place.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace qxanalytics {

// Where red sits in a pixel: first byte (RGB, RGBx) or third (BGR, BGRx).
enum class ChannelOrder { Rgb, Bgr };

struct Colour {
    unsigned char r = 0, g = 0, b = 0;
};

struct PaintBox {
    cv::Rect2f box;   // pixels of the picture
    std::string text; // drawn above the box; empty draws none
};

// One entry per mask cell, row by row; true cells are tinted. Rows may differ in length:
// each row's cells split the picture's width evenly.
using CellMask = std::vector<std::vector<bool>>;

struct PaintStyle {
    int lineWidth = 2;
    double alpha = 0.4; // share of the tint in a masked pixel
    Colour boxColour{0, 255, 0};
    Colour maskTint{255, 128, 0};
    bool drawLabels = true;
};

// The rectangle of picture pixels covered by cell (row, column) of a mask of
// rows x columns cells: [column*W/columns, (column+1)*W/columns) and likewise for rows.
cv::Rect maskCellRect(cv::Size picture, int rows, int row, int columns, int column);

void paintMask(cv::Mat &picture, const CellMask &mask, const PaintStyle &style, ChannelOrder order);
void paintBoxes(cv::Mat &picture, const std::vector<PaintBox> &boxes, const PaintStyle &style, ChannelOrder order);
// Text lines in the top-left corner on a dark band.
void paintCaption(cv::Mat &picture, const std::vector<std::string> &lines, ChannelOrder order);

} // namespace qxanalytics
