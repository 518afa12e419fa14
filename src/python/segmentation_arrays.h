#pragma once
// Segmentation maps between the record's rows of cells and NumPy arrays, one
// pass in C++ over the cells, never a Python loop per cell.

#include "gstqxmeta.h"

#include <pybind11/pybind11.h>

#include <string>
#include <vector>

namespace qxpy {

using SegmentRows = std::vector<std::vector<quorix::ai::SegmentResult>>;

// A qxmeta.Segmentation (class_ids, probabilities, labels) as rows; errors name `where`.
SegmentRows segmentRows(pybind11::handle segmentation, const std::string &where);

// Rows as a qxmeta.Segmentation made by `make`; rows shorter than the widest
// are padded with class id -1 and probability 0 so the map stays rectangular.
pybind11::object segmentationOf(const SegmentRows &rows, pybind11::handle make);

} // namespace qxpy
