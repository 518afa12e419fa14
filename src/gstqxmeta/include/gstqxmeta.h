#pragma once
// Pipeline batch metadata: the inference results of one batch of frames,
// attached to a GstBuffer so they travel with the picture down a pipeline.
//
// This is a C++ header: the record holds std::string and std::vector members,
// so every producer and consumer must be built with a C++17 compiler and the
// same standard library ABI as libgstqxmeta (libstdc++ with the C++11 string
// ABI on our targets). The functions have C linkage so their symbol names do
// not depend on the compiler, but the record itself is not usable from C.
//
// The member order, types and offsets below are a contract with peers that
// exchange this record in the same process (inference elements built
// elsewhere); they are checked at compile time on 64-bit targets. Do not
// reorder, resize or insert members.

#include <gst/gst.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quorix {
namespace ai {

struct ClassificationResult {
    int index = 0;
    std::string output;
    std::string label;
    float prob = 0.0f;
};

struct DetectionBoxResult {
    int obj_id = 0;
    std::string obj_label;
    int class_id = 0;
    std::string class_label;
    float x1 = 0.0f;
    float y1 = 0.0f;
    float x2 = 0.0f;
    float y2 = 0.0f;
    float prob = 0.0f;
    std::string meta;
};

// One entry is one pixel of a segmentation map; a map is a list of rows of
// entries. The two leading values are copied together as one 8-byte unit by
// code that exchanges them, so keep them adjacent and 32 bits wide.
struct SegmentResult {
    std::int32_t class_id = 0;
    float prob = 0.0f;
    std::string label;
};

} // namespace ai
} // namespace quorix

struct DeviceInfoData {
    std::string stream_id;
    std::string mac_address;
    std::string ip_address;
    int port = 0;
    std::string uri;
    std::string manufacturer;
    std::string model;
    std::string serial;
    std::string fw_version;
    std::string dev_id;
    std::string status;
    std::string kind;
    std::string protocol;
};

struct VideoFrameData {
    std::string stream_id;
    int frame_id = 0; // the key that pairs frames with their results downstream
    std::uint64_t timestamp = 0;
    int width = 0;
    int height = 0;
    int depth = 0;
    int channels = 0;
    int device_idx = 0; // index into GstQxBatchMeta::devices; out of range means "no device"
    bool is_compress = false;
    std::vector<quorix::ai::ClassificationResult> class_results;
    std::vector<quorix::ai::DetectionBoxResult> det_results;
    std::vector<std::vector<quorix::ai::SegmentResult>> seg_results;
};

struct GstQxBatchMeta {
    GstMeta meta;
    // Held for peers that use it; this library never reads or writes it.
    std::uint64_t reserved;
    std::vector<DeviceInfoData> devices;
    std::vector<VideoFrameData> frames;
};

G_BEGIN_DECLS

// The API type of the record ("GstQxBatchMetaAPI"); registered once.
GType gst_qx_batch_meta_api_get_type(void);

// The meta implementation: init leaves both lists empty, free destroys them,
// and buffer copies (also by tee and queue) copy the record. Thread-safe.
const GstMetaInfo *gst_qx_batch_meta_get_info(void);

// The buffer's batch record, or NULL when it carries none.
GstQxBatchMeta *gst_buffer_get_qx_batch_meta(GstBuffer *buffer);

// Attaches a new, empty batch record (the buffer must be writable).
GstQxBatchMeta *gst_buffer_add_qx_batch_meta(GstBuffer *buffer);

G_END_DECLS

#define GST_QX_BATCH_META_API_TYPE (gst_qx_batch_meta_api_get_type())
#define GST_QX_BATCH_META_INFO (gst_qx_batch_meta_get_info())
