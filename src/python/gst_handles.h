#pragma once
// The GStreamer objects behind PyGObject wrappers: a Gst.Buffer, or the buffer
// a Gst.PadProbeInfo carries while its probe runs.

#include <gst/gst.h>
#include <pybind11/pybind11.h>

namespace qxpy {

// Imports PyGObject's C API; call once when the module loads.
void initGstHandles();

// The buffer of a Gst.Buffer or Gst.PadProbeInfo (borrowed). TypeError for
// anything else, and for a probe that carries no buffer.
GstBuffer *readableBuffer(pybind11::handle target);

// The buffer to attach to (borrowed). A Gst.Buffer must be writable
// (ValueError if not); a probe's buffer is made writable in place, as C
// probes do, so the record travels on with the buffer the probe passes on.
GstBuffer *writableBuffer(pybind11::handle target);

} // namespace qxpy
