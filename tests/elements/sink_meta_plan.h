#pragma once
// The batch metadata that the sink_pipeline helper attaches to frame n, and
// what subscribers must then read for it. Shared by the helper (which
// attaches) and the tests (which check), so both sides agree by construction.

#include <cstdint>
#include <string>
#include <vector>

#include "gstqxmeta.h"
#include "src_expected.h"

namespace sinkplan {

constexpr int kFrameIdBase = 1000;

// Frames carry their own id (kFrameIdBase + n) so tests can tell which input
// a sample belongs to. Even frames point at device 1; odd frames point one
// past the device list, which subscribers must see as "no device".
inline void fill(GstQxBatchMeta *batch, std::uint64_t n, int width, int height) {
    DeviceInfoData first;
    first.stream_id = "cam-a";
    first.port = 80;
    DeviceInfoData second = srcexpect::device();
    second.uri = ""; // published as "Not Set"
    second.serial = "SN-" + std::to_string(n);
    batch->devices = {first, second};

    VideoFrameData frame;
    frame.stream_id = "cam-b";
    frame.frame_id = kFrameIdBase + static_cast<int>(n);
    frame.timestamp = 20260101120000000ULL + n;
    frame.width = width;
    frame.height = height;
    frame.depth = 8;
    frame.channels = 3;
    frame.device_idx = n % 2 == 0 ? 1 : 2;
    frame.is_compress = false;
    // A varying number of results per frame: a result repeated from the
    // previous frame would show up as an extra entry.
    for (std::uint64_t i = 0; i <= n % 3; ++i) {
        frame.class_results.push_back({static_cast<int>(i), "out-" + std::to_string(n), "label-" + std::to_string(i),
                                       0.25f * static_cast<float>(i + 1)});
    }
    quorix::ai::DetectionBoxResult box;
    box.obj_id = static_cast<int>(n);
    box.obj_label = "person";
    box.class_id = 7;
    box.class_label = "human";
    box.x1 = 1.5f;
    box.y1 = 2.5f;
    box.x2 = 30.0f;
    box.y2 = 40.0f;
    box.prob = 0.875f;
    box.meta = "frame " + std::to_string(n);
    frame.det_results.push_back(box);
    // Row 0: road road car car car ; row 1: road road road road sky
    const quorix::ai::SegmentResult road{1, 0.5f, "road"};
    const quorix::ai::SegmentResult car{2, 0.75f, "car"};
    const quorix::ai::SegmentResult sky{3, 0.5f, "sky"};
    frame.seg_results = {{road, road, car, car, car}, {road, road, road, road, sky}};
    batch->frames = {frame};
}

// The runs the map above must travel as: {class/color, label, repeat}.
struct Run {
    std::uint32_t color;
    const char *label;
    std::uint32_t repeat;
    float probability;
};
inline std::vector<Run> expectedRuns() {
    return {{1, "road", 2, 0.5f}, {2, "car", 3, 0.75f}, {1, "road", 4, 0.5f}, {3, "sky", 1, 0.5f}};
}
constexpr std::uint32_t kSegWidth = 5;
constexpr std::uint32_t kSegHeight = 2;

} // namespace sinkplan
