#include "record_from_python.h"

#include "field_reader.h"
#include "segmentation_arrays.h"

#include <string>

namespace py = pybind11;

namespace qxpy {

namespace {

// Each list field takes any iterable of entries; a str or bytes would iterate
// as characters, so those are refused.
template <typename Read> auto readList(const FieldReader &owner, const char *name, Read read) {
    const std::string at = owner.where(name);
    py::object list = owner.attr(name);
    if (PyUnicode_Check(list.ptr()) || PyBytes_Check(list.ptr()) || !py::hasattr(list, "__iter__")) {
        throw py::type_error(at + ": expected a list, got " + typeName(list));
    }
    std::vector<decltype(read(FieldReader(list, at)))> out;
    std::size_t i = 0;
    for (py::handle entry : list) {
        out.push_back(read(FieldReader(entry, at + "[" + std::to_string(i++) + "]")));
    }
    return out;
}

quorix::ai::ClassificationResult readClassification(const FieldReader &r) {
    quorix::ai::ClassificationResult c;
    c.index = r.int32("index");
    c.output = r.string("output");
    c.label = r.string("label");
    c.prob = r.float32("probability");
    return c;
}

quorix::ai::DetectionBoxResult readBox(const FieldReader &r) {
    quorix::ai::DetectionBoxResult b;
    b.obj_id = r.int32("obj_id");
    b.obj_label = r.string("obj_label");
    b.class_id = r.int32("class_id");
    b.class_label = r.string("class_label");
    b.x1 = r.float32("x1");
    b.y1 = r.float32("y1");
    b.x2 = r.float32("x2");
    b.y2 = r.float32("y2");
    b.prob = r.float32("probability");
    b.meta = r.string("meta");
    return b;
}

VideoFrameData readFrame(const FieldReader &r) {
    VideoFrameData f;
    f.stream_id = r.string("stream_id");
    f.frame_id = r.int32("frame_id");
    f.timestamp = r.uint64("timestamp");
    f.width = r.int32("width");
    f.height = r.int32("height");
    f.depth = r.int32("depth");
    f.channels = r.int32("channels");
    f.device_idx = r.int32("device_idx");
    f.is_compress = r.boolean("is_compress");
    f.class_results = readList(r, "classifications", readClassification);
    f.det_results = readList(r, "boxes", readBox);
    py::object segmentation = r.attr("segmentation");
    if (!segmentation.is_none()) f.seg_results = segmentRows(segmentation, r.where("segmentation"));
    return f;
}

DeviceInfoData readDevice(const FieldReader &r) {
    DeviceInfoData d;
    d.stream_id = r.string("stream_id");
    d.mac_address = r.string("mac_address");
    d.ip_address = r.string("ip_address");
    d.port = r.int32("port");
    d.uri = r.string("uri");
    d.manufacturer = r.string("manufacturer");
    d.model = r.string("model");
    d.serial = r.string("serial");
    d.fw_version = r.string("fw_version");
    d.dev_id = r.string("dev_id");
    d.status = r.string("status");
    d.kind = r.string("kind");
    d.protocol = r.string("protocol");
    return d;
}

} // namespace

BatchContents batchFromPython(py::handle batch) {
    if (!py::hasattr(batch, "frames") || !py::hasattr(batch, "devices")) {
        throw py::type_error("qxmeta.attach: expected a qxmeta.Batch, got " + typeName(batch));
    }
    const FieldReader reader(batch, "batch");
    BatchContents contents;
    contents.devices = readList(reader, "devices", readDevice);
    contents.frames = readList(reader, "frames", readFrame);
    return contents;
}

} // namespace qxpy
