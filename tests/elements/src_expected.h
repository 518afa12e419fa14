#pragma once
// The batch metadata that the publishing helper attaches to frame n, shared by
// the helper (which writes it) and the tests (which compare what arrived with
// it). Every value depends on the frame id, and the number of class results
// changes from frame to frame, so a result paired with the wrong frame or
// repeated from an earlier one shows.

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

// Segmentation map of 2 rows of 5 pixels: a a b b b / a a a a c, with classes from the frame id.
inline constexpr int kSegRows = 2;
inline constexpr int kSegCols = 5;
inline int segClass(int id, int row, int col) {
    const int pattern[kSegRows][kSegCols] = {{0, 0, 1, 1, 1}, {0, 0, 0, 0, 2}};
    return (id + pattern[row][col]) % 3;
}

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
    for (int k = 0; k <= id % 3; ++k)
        f.class_results.push_back({id % 5 + k, "out-" + std::to_string(id) + "-" + std::to_string(k),
                                   "cls-" + std::to_string(id % 7 + k),
                                   0.25f + 0.125f * static_cast<float>((id + k) % 4)});
    for (int k = 0; k < 2; ++k) {
        const float x = static_cast<float>(id % 50 + k), y = static_cast<float>(id % 40 + 2 * k);
        f.det_results.push_back({id * 10 + k, "obj-" + std::to_string(id) + "-" + std::to_string(k), (id + k) % 3,
                                 "class-" + std::to_string((id + k) % 3), x, y, x + 20.5f, y + 10.25f,
                                 0.5f + 0.0625f * static_cast<float>(k), "meta-" + std::to_string(id)});
    }
    for (int r = 0; r < kSegRows; ++r) {
        f.seg_results.emplace_back();
        for (int c = 0; c < kSegCols; ++c) {
            const int cls = segClass(id, r, c);
            f.seg_results.back().push_back(
                {cls, 0.5f + 0.125f * static_cast<float>(cls), "seg-" + std::to_string(cls)});
        }
    }
    return f;
}

// The device does not change from frame to frame: the subscriber pairs a frame
// with whichever device record came last.
inline DeviceInfoData device() {
    return {"device-stream",
            "02:00:00:00:00:01",
            "127.0.0.1",
            8554,
            "rtsp://127.0.0.1:8554/cam",
            "Test Maker",
            "Model T",
            "SN-0001",
            "v9.9",
            "cam-1",
            "com.vision.models.DEVICE_STATUS_ONLINE",
            "com.vision.models.DEVICE_KIND_CAMERA",
            "com.vision.models.INTERFACE_RTSP"};
}

// The sink's own checks (helper option --meta): frame ids from kFrameIdBase, two
// devices, and a device index that points at the second device on even frames
// and one past the list on odd ones, which the sink must publish as its filler
// device; the second device's empty uri goes out as "Not Set".
inline constexpr int kFrameIdBase = 1000;
inline void fillSinkBatch(GstQxBatchMeta *batch, int n, int width, int height) {
    DeviceInfoData first;
    first.stream_id = "cam-a";
    DeviceInfoData second = device();
    second.uri = "";
    second.serial = "SN-" + std::to_string(n);
    batch->devices = {first, second};
    batch->frames = {frame(kFrameIdBase + n, "cam-b", width, height)};
    batch->frames[0].device_idx = n % 2 == 0 ? 1 : 2;
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
inline bool sameWithResults(const VideoFrameData &a, const VideoFrameData &b, bool missingAllowed = false) {
    const auto sameOrMissing = [&](const auto &x, const auto &y) {
        return (missingAllowed && x.empty()) || same(x, y);
    };
    return same(a, b) && sameOrMissing(a.class_results, b.class_results) &&
           sameOrMissing(a.det_results, b.det_results) && sameOrMissing(a.seg_results, b.seg_results);
}

} // namespace srcexpect
