// Compile-time checks of the batch record layout. Peers built elsewhere read
// the same memory, so a member that moves must break the build, not a
// pipeline at run time. The figures hold for LP64 targets (x86-64, arm64).

#include "gstqxmeta.h"

#include <cstddef>
#include <cstdint>

#if UINTPTR_MAX == 0xffffffffffffffff

// offsetof on these non-standard-layout types is conditionally supported;
// GCC and Clang give the member offsets, which is what we pin down here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

static_assert(sizeof(GstMeta) == 16, "GstMeta header is 16 bytes");
static_assert(offsetof(GstQxBatchMeta, meta) == 0);
static_assert(offsetof(GstQxBatchMeta, reserved) == 16);
static_assert(offsetof(GstQxBatchMeta, devices) == 24);
static_assert(offsetof(GstQxBatchMeta, frames) == 48);
static_assert(sizeof(GstQxBatchMeta) == 72);

static_assert(offsetof(VideoFrameData, stream_id) == 0);
static_assert(offsetof(VideoFrameData, frame_id) == 32);
static_assert(offsetof(VideoFrameData, timestamp) == 40);
static_assert(offsetof(VideoFrameData, width) == 48);
static_assert(offsetof(VideoFrameData, height) == 52);
static_assert(offsetof(VideoFrameData, depth) == 56);
static_assert(offsetof(VideoFrameData, channels) == 60);
static_assert(offsetof(VideoFrameData, device_idx) == 64);
static_assert(offsetof(VideoFrameData, is_compress) == 68);
static_assert(offsetof(VideoFrameData, class_results) == 72);
static_assert(offsetof(VideoFrameData, det_results) == 96);
static_assert(offsetof(VideoFrameData, seg_results) == 120);
static_assert(sizeof(VideoFrameData) == 144);

static_assert(offsetof(quorix::ai::ClassificationResult, index) == 0);
static_assert(offsetof(quorix::ai::ClassificationResult, output) == 8);
static_assert(offsetof(quorix::ai::ClassificationResult, label) == 40);
static_assert(offsetof(quorix::ai::ClassificationResult, prob) == 72);
static_assert(sizeof(quorix::ai::ClassificationResult) == 80);

static_assert(offsetof(quorix::ai::DetectionBoxResult, obj_id) == 0);
static_assert(offsetof(quorix::ai::DetectionBoxResult, obj_label) == 8);
static_assert(offsetof(quorix::ai::DetectionBoxResult, class_id) == 40);
static_assert(offsetof(quorix::ai::DetectionBoxResult, class_label) == 48);
static_assert(offsetof(quorix::ai::DetectionBoxResult, x1) == 80);
static_assert(offsetof(quorix::ai::DetectionBoxResult, y1) == 84);
static_assert(offsetof(quorix::ai::DetectionBoxResult, x2) == 88);
static_assert(offsetof(quorix::ai::DetectionBoxResult, y2) == 92);
static_assert(offsetof(quorix::ai::DetectionBoxResult, prob) == 96);
static_assert(offsetof(quorix::ai::DetectionBoxResult, meta) == 104);
static_assert(sizeof(quorix::ai::DetectionBoxResult) == 136);

static_assert(offsetof(quorix::ai::SegmentResult, class_id) == 0);
static_assert(offsetof(quorix::ai::SegmentResult, prob) == 4);
static_assert(offsetof(quorix::ai::SegmentResult, label) == 8);
static_assert(sizeof(quorix::ai::SegmentResult) == 40);

static_assert(offsetof(DeviceInfoData, stream_id) == 0);
static_assert(offsetof(DeviceInfoData, mac_address) == 32);
static_assert(offsetof(DeviceInfoData, ip_address) == 64);
static_assert(offsetof(DeviceInfoData, port) == 96);
static_assert(offsetof(DeviceInfoData, uri) == 104);
static_assert(offsetof(DeviceInfoData, manufacturer) == 136);
static_assert(offsetof(DeviceInfoData, model) == 168);
static_assert(offsetof(DeviceInfoData, serial) == 200);
static_assert(offsetof(DeviceInfoData, fw_version) == 232);
static_assert(offsetof(DeviceInfoData, dev_id) == 264);
static_assert(offsetof(DeviceInfoData, status) == 296);
static_assert(offsetof(DeviceInfoData, kind) == 328);
static_assert(offsetof(DeviceInfoData, protocol) == 360);
static_assert(sizeof(DeviceInfoData) == 392);

#pragma GCC diagnostic pop

#endif
