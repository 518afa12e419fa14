// PyGObject wraps GstBuffer as a boxed value and GstPadProbeInfo as a plain
// struct; both wrappers start with the C pointer, which is what we need.

#include "gst_handles.h"

#include "field_reader.h"

#include <pygobject.h>

#include <string>

namespace py = pybind11;

namespace qxpy {

namespace {

// Python's own wrappers (a Gst.Buffer made from Python, or one in a probe)
// hold a reference each, so a buffer seen in a probe counts at least two.
std::string sharedMessage(GstBuffer *buffer) {
    return "qxmeta.attach: the Gst.Buffer is not writable (it has " +
           std::to_string(GST_MINI_OBJECT_REFCOUNT_VALUE(buffer)) +
           " references); inside a pad probe pass the Gst.PadProbeInfo instead, or attach to a copy "
           "(buffer.copy_deep())";
}

bool isBuffer(py::handle object) { return pyg_boxed_check(object.ptr(), GST_TYPE_BUFFER); }

// Gst.PadProbeInfo has no GType of its own, so the wrapper is recognised by
// its class; if Gst was never imported no such object can exist.
bool isProbeInfo(py::handle object) {
    if (!PyObject_TypeCheck(object.ptr(), &PyGPointer_Type)) return false;
    py::dict modules = py::module_::import("sys").attr("modules");
    if (!modules.contains("gi.repository.Gst")) return false;
    py::object probeInfo = py::getattr(modules["gi.repository.Gst"], "PadProbeInfo", py::none());
    return !probeInfo.is_none() && py::isinstance(object, probeInfo);
}

GstPadProbeInfo *probeInfoOf(py::handle object) {
    auto *info = pyg_pointer_get(object.ptr(), GstPadProbeInfo);
    if (info == nullptr || (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) == 0 ||
        !GST_IS_BUFFER(GST_PAD_PROBE_INFO_DATA(info))) {
        throw py::type_error("qxmeta: the Gst.PadProbeInfo carries no buffer (add the probe with "
                             "Gst.PadProbeType.BUFFER)");
    }
    return info;
}

[[noreturn]] void notATarget(py::handle object) {
    throw py::type_error("qxmeta: expected a Gst.Buffer or Gst.PadProbeInfo, got " + typeName(object));
}

} // namespace

void initGstHandles() {
    if (pygobject_init(-1, -1, -1) == nullptr) throw py::error_already_set();
}

GstBuffer *readableBuffer(py::handle target) {
    if (isBuffer(target)) return pyg_boxed_get(target.ptr(), GstBuffer);
    if (isProbeInfo(target)) return GST_PAD_PROBE_INFO_BUFFER(probeInfoOf(target));
    notATarget(target);
}

GstBuffer *writableBuffer(py::handle target) {
    if (isBuffer(target)) {
        GstBuffer *buffer = pyg_boxed_get(target.ptr(), GstBuffer);
        if (!gst_buffer_is_writable(buffer)) throw py::value_error(sharedMessage(buffer));
        return buffer;
    }
    if (isProbeInfo(target)) {
        GstPadProbeInfo *info = probeInfoOf(target);
        // Takes over the probe's reference: a shared buffer is replaced by a
        // shallow copy (memory shared), and wrappers Python still holds keep
        // the original.
        GstBuffer *buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
        GST_PAD_PROBE_INFO_DATA(info) = buffer;
        return buffer;
    }
    notATarget(target);
}

} // namespace qxpy
