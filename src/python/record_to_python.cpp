#include "record_to_python.h"

#include "segmentation_arrays.h"

namespace py = pybind11;
using py::arg;

namespace qxpy {

namespace {

// The classes of qxmeta.records, looked up once. Kept for the life of the
// process on purpose: destroying Python objects after the interpreter has
// finalised would crash at exit.
struct Classes {
    py::object batch, frame, device, classification, box, segmentation;
};

const Classes &classes() {
    static const Classes *loaded = [] {
        py::module_ records = py::module_::import("qxmeta.records");
        return new Classes{records.attr("Batch"),          records.attr("Frame"),        records.attr("Device"),
                           records.attr("Classification"), records.attr("DetectionBox"), records.attr("Segmentation")};
    }();
    return *loaded;
}

py::object frameToPython(const VideoFrameData &f, const Classes &c) {
    py::list classifications;
    for (const auto &r : f.class_results) {
        classifications.append(c.classification(arg("index") = r.index, arg("output") = r.output,
                                                arg("label") = r.label, arg("probability") = r.prob));
    }
    py::list boxes;
    for (const auto &b : f.det_results) {
        boxes.append(c.box(arg("obj_id") = b.obj_id, arg("obj_label") = b.obj_label, arg("class_id") = b.class_id,
                           arg("class_label") = b.class_label, arg("x1") = b.x1, arg("y1") = b.y1, arg("x2") = b.x2,
                           arg("y2") = b.y2, arg("probability") = b.prob, arg("meta") = b.meta));
    }
    py::object segmentation = f.seg_results.empty() ? py::none() : segmentationOf(f.seg_results, c.segmentation);
    return c.frame(arg("stream_id") = f.stream_id, arg("frame_id") = f.frame_id, arg("timestamp") = f.timestamp,
                   arg("width") = f.width, arg("height") = f.height, arg("depth") = f.depth,
                   arg("channels") = f.channels, arg("device_idx") = f.device_idx, arg("is_compress") = f.is_compress,
                   arg("classifications") = classifications, arg("boxes") = boxes, arg("segmentation") = segmentation);
}

py::object deviceToPython(const DeviceInfoData &d, const Classes &c) {
    return c.device(arg("stream_id") = d.stream_id, arg("mac_address") = d.mac_address,
                    arg("ip_address") = d.ip_address, arg("port") = d.port, arg("uri") = d.uri,
                    arg("manufacturer") = d.manufacturer, arg("model") = d.model, arg("serial") = d.serial,
                    arg("fw_version") = d.fw_version, arg("dev_id") = d.dev_id, arg("status") = d.status,
                    arg("kind") = d.kind, arg("protocol") = d.protocol);
}

} // namespace

py::object batchToPython(const GstQxBatchMeta &batch) {
    const Classes &c = classes();
    py::list devices;
    for (const auto &d : batch.devices)
        devices.append(deviceToPython(d, c));
    py::list frames;
    for (const auto &f : batch.frames)
        frames.append(frameToPython(f, c));
    return c.batch(arg("devices") = devices, arg("frames") = frames);
}

} // namespace qxpy
