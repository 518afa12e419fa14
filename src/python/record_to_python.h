#pragma once
// The C++ batch record as qxmeta's Python objects (qxmeta.records).

#include "gstqxmeta.h"

#include <pybind11/pybind11.h>

namespace qxpy {

pybind11::object batchToPython(const GstQxBatchMeta &batch);

} // namespace qxpy
