#pragma once
// What the publishing helper attaches to frame n, shared by the helper (which
// writes it) and the qxedgesrc tests (which compare what arrived with it).
// Every value depends on the frame id, so a result paired with the wrong frame shows.

#include <cstdint>
#include <string>

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

inline VideoFrameData frame(int id, const std::string &stream, int width, int height, std::uint64_t timestamp) {
    VideoFrameData f;
    f.stream_id = stream;
    f.frame_id = id;
    f.timestamp = timestamp != 0 ? timestamp : 1000u + static_cast<std::uint64_t>(id);
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

inline void fillBatch(GstQxBatchMeta &meta, int id, const std::string &stream, int width, int height,
                      std::uint64_t timestamp) {
    meta.frames.push_back(frame(id, stream, width, height, timestamp));
    meta.devices.push_back(device());
}

} // namespace srcexpect
