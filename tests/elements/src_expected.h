#pragma once
// What the publishing helper attaches to frame n, shared by the helper (which
// writes it) and the qxedgesrc tests (which compare what arrived with it).
// Every value depends on the frame id, so a result paired with the wrong frame shows.

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "gstqxmeta.h"

namespace srcexpect {

// Results go out before their frame, so they are queued when the synchroniser
// takes the frame; the other order leaves pairing to how the threads happen to run.
inline constexpr const char *kAllGroupsWithVideo =
    "ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData+VideoFrameData";
inline constexpr const char *kResultGroups = "ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData";

// Segmentation map: kSegRows rows of kSegCols pixels, runs of two equal pixels.
inline constexpr int kSegRows = 3;
inline constexpr int kSegCols = 6;

inline VideoFrameData frame(int id, const std::string &stream, int width, int height) {
    VideoFrameData f;
    f.stream_id = stream;
    f.frame_id = id;
    f.timestamp = 1000u + static_cast<std::uint64_t>(id);
    f.width = width;
    f.height = height;
    f.depth = 8;
    f.channels = 3;
    f.device_idx = 0;
    f.is_compress = false;
    for (int k = 0; k < 2; ++k) {
        quorix::ai::ClassificationResult c;
        c.index = id % 5 + k;
        c.output = "out-" + std::to_string(id) + "-" + std::to_string(k);
        c.label = "cls-" + std::to_string(id % 7 + k);
        c.prob = 0.25f + 0.125f * static_cast<float>((id + k) % 4);
        f.class_results.push_back(c);
    }
    for (int k = 0; k < 2; ++k) {
        quorix::ai::DetectionBoxResult d;
        d.obj_id = id * 10 + k;
        d.obj_label = "obj-" + std::to_string(id) + "-" + std::to_string(k);
        d.class_id = (id + k) % 3;
        d.class_label = "class-" + std::to_string((id + k) % 3);
        d.x1 = static_cast<float>(id % 50 + k);
        d.y1 = static_cast<float>(id % 40 + 2 * k);
        d.x2 = d.x1 + 20.5f;
        d.y2 = d.y1 + 10.25f;
        d.prob = 0.5f + 0.0625f * static_cast<float>(k);
        d.meta = "meta-" + std::to_string(id);
        f.det_results.push_back(d);
    }
    for (int r = 0; r < kSegRows; ++r) {
        std::vector<quorix::ai::SegmentResult> row;
        for (int c = 0; c < kSegCols; ++c) {
            quorix::ai::SegmentResult s;
            s.class_id = (id + r + c / 2) % 3;
            s.prob = 0.5f + 0.125f * static_cast<float>(s.class_id);
            s.label = "seg-" + std::to_string(s.class_id);
            row.push_back(s);
        }
        f.seg_results.push_back(row);
    }
    return f;
}

// The device does not change from frame to frame: the subscriber pairs a frame
// with whichever device record came last.
inline DeviceInfoData device() {
    DeviceInfoData d;
    d.stream_id = "device-stream";
    d.mac_address = "02:00:00:00:00:01";
    d.ip_address = "127.0.0.1";
    d.port = 8554;
    d.uri = "rtsp://127.0.0.1:8554/cam";
    d.manufacturer = "Test Maker";
    d.model = "Model T";
    d.serial = "SN-0001";
    d.fw_version = "v9.9";
    d.dev_id = "cam-1";
    d.status = "com.vision.models.DEVICE_STATUS_ONLINE";
    d.kind = "com.vision.models.DEVICE_KIND_CAMERA";
    d.protocol = "com.vision.models.INTERFACE_RTSP";
    return d;
}

// Every field of a record, for whole-record comparison. Floats compare exactly:
// every value above is a sum of powers of two.
inline auto fields(const quorix::ai::ClassificationResult &c) { return std::tie(c.index, c.output, c.label, c.prob); }
inline auto fields(const quorix::ai::DetectionBoxResult &d) {
    return std::tie(d.obj_id, d.obj_label, d.class_id, d.class_label, d.x1, d.y1, d.x2, d.y2, d.prob, d.meta);
}
inline auto fields(const quorix::ai::SegmentResult &s) { return std::tie(s.class_id, s.prob, s.label); }
inline auto fields(const DeviceInfoData &d) {
    return std::tie(d.stream_id, d.mac_address, d.ip_address, d.port, d.uri, d.manufacturer, d.model, d.serial,
                    d.fw_version, d.dev_id, d.status, d.kind, d.protocol);
}
// A frame's own fields, without its results.
inline auto fields(const VideoFrameData &f) {
    return std::tie(f.stream_id, f.frame_id, f.timestamp, f.width, f.height, f.depth, f.channels, f.device_idx,
                    f.is_compress);
}
template <typename T> bool same(const T &a, const T &b) { return fields(a) == fields(b); }
template <typename T> bool same(const std::vector<T> &a, const std::vector<T> &b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const T &x, const T &y) { return same(x, y); });
}
inline bool sameWithResults(const VideoFrameData &a, const VideoFrameData &b) {
    return same(a, b) && same(a.class_results, b.class_results) && same(a.det_results, b.det_results) &&
           same(a.seg_results, b.seg_results);
}

} // namespace srcexpect
