// qxmeta._native: get and attach the batch record of a Gst.Buffer. The
// Python package qxmeta re-exports these with the record classes.

#include "gst_handles.h"
#include "gstqxmeta.h"
#include "record_from_python.h"
#include "record_to_python.h"

#include <pybind11/pybind11.h>

#include <stdexcept>
#include <utility>

namespace py = pybind11;

namespace {

// Registering the meta needs an initialised GStreamer. Applications call
// Gst.init() themselves; this covers a buffer made before that.
void ensureGst() {
    if (!gst_is_initialized()) gst_init(nullptr, nullptr);
}

py::object get(py::handle target) {
    ensureGst();
    GstBuffer *buffer = qxpy::readableBuffer(target);
    const GstQxBatchMeta *batch = gst_buffer_get_qx_batch_meta(buffer);
    if (batch == nullptr) return py::none();
    return qxpy::batchToPython(*batch);
}

void attach(py::handle target, py::handle record) {
    // Read and check all of the record before touching the buffer, so a bad
    // record leaves the buffer and any record on it as they were.
    qxpy::BatchContents contents = qxpy::batchFromPython(record);
    ensureGst();
    GstBuffer *buffer = qxpy::writableBuffer(target);
    GstQxBatchMeta *batch = gst_buffer_get_qx_batch_meta(buffer);
    if (batch == nullptr) batch = gst_buffer_add_qx_batch_meta(buffer);
    if (batch == nullptr) throw std::runtime_error("qxmeta.attach: GStreamer refused to add the record");
    batch->devices = std::move(contents.devices);
    batch->frames = std::move(contents.frames);
}

} // namespace

PYBIND11_MODULE(_native, m) {
    m.doc() = "Batch metadata (GstQxBatchMeta) of Gst.Buffer objects; use the package qxmeta.";
    qxpy::initGstHandles();
    m.def("get", &get, py::arg("buffer"),
          "The record of a Gst.Buffer (or of the buffer of a Gst.PadProbeInfo) as a qxmeta.Batch, or None "
          "when it carries none.");
    m.def("attach", &attach, py::arg("target"), py::arg("batch"),
          "Attaches batch (a qxmeta.Batch) to a writable Gst.Buffer, or inside a pad probe to the probe's "
          "buffer (pass the Gst.PadProbeInfo), replacing any record already there.");
}
