#pragma once
// Reads a qxmeta.Batch (or any object with its attributes) into the C++
// record, checking every value: a wrong type is a TypeError, a value the
// record's field cannot hold a ValueError, each naming the field
// ("frames[0].boxes[2].class_id"). Nothing is attached until all of it read.

#include "gstqxmeta.h"

#include <pybind11/pybind11.h>

#include <vector>

namespace qxpy {

struct BatchContents {
    std::vector<DeviceInfoData> devices;
    std::vector<VideoFrameData> frames;
};

BatchContents batchFromPython(pybind11::handle batch);

} // namespace qxpy
