#pragma once
// The five records that cross the bus, one per tag group, with their
// name-value encoding, decoding and text dumps. Pair names, kinds and order
// are the wire format shared with every peer: change none of them.

#include <cstdint>
#include <string>
#include <vector>

#include "marlet/iot_value.h"

namespace cv {
class Mat;
}

namespace TOLVIXO {

using NvpList = std::vector<com::quorixtech::iot::IOT_NVP>;

// One video frame ("VideoFrameData").
struct FrameInfo {
    std::string stream_id;
    std::uint32_t frame_id = 0;
    // Local date and time as the digits YYYYMMDDhhmmssmmm, not a count of seconds.
    std::int64_t timestamp = 0;
    std::vector<unsigned char> data;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t channels = 0;
    std::uint32_t size = 0;
    std::string format;
    std::string compression;
    float framerate = 0.0f;

    NvpList Encode() const;
    std::string GetString() const;
    // Copies this frame into target; the bytes are appended to whatever target
    // already holds (see frame_information.cpp).
    void Copy(FrameInfo &target);
    // Picture as a 3-channel 8-bit image; see frame_image.cpp.
    void ToMat(cv::Mat &out) const;

    // Current time; none of them reads the record.
    static std::string GetUTCTime();
    static std::int64_t GetDigitTimeSince1970();
    static std::uint64_t GetDigitUTCTime();
};

// The camera or source device ("DeviceInfoData").
struct DeviceInfo {
    std::string stream_id;
    std::string mac_address;
    std::string ip_address;
    std::int32_t port = 0;
    std::string uri;
    std::string manufacturer;
    std::string model;
    std::string serial;
    std::string fw_version;
    std::string dev_id;
    std::string status;
    std::string kind;
    std::string protocol;

    NvpList Encode() const;
    std::string GetString() const;
};

// One class score.
struct ClassificationData {
    std::int32_t index = 0;
    std::string output;
    std::string label;
    float probability = 0.0f;
};

// One detected object.
struct DetectionBoxData {
    std::int32_t obj_id = 0;
    std::int32_t class_id = 0;
    std::string obj_label;
    std::string class_label;
    float x1 = 0.0f;
    float y1 = 0.0f;
    float x2 = 0.0f;
    float y2 = 0.0f;
    float probability = 0.0f;
    std::string meta;

    // Appends the box's ten pairs to seq (callers pass an empty one per box).
    void Encode(NvpList &seq) const;
};

// One inference result set for one frame ("ClassificationData",
// "DetectionBoxData").
template <typename T> struct Information {
    std::string engine_id;
    std::string stream_id;
    std::uint32_t frame_id = 0;
    std::vector<T> data;

    NvpList Encode() const;
    std::string GetString() const;
};

template <> NvpList Information<ClassificationData>::Encode() const;
template <> std::string Information<ClassificationData>::GetString() const;
template <> NvpList Information<DetectionBoxData>::Encode() const;
template <> std::string Information<DetectionBoxData>::GetString() const;

// One mask or mask layer.
struct SegmentationData {
    std::uint32_t id = 0;
    std::uint32_t repeat = 0;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t size = 0;
    std::uint32_t channels = 0;
    std::uint32_t color = 0;
    std::string label;
    float probability = 0.0f;
    std::vector<unsigned char> data;

    NvpList Encode() const;
};

// One segmentation result for one frame ("SegmentationData").
struct SegmentInfo {
    std::string engine_id;
    std::string stream_id;
    std::uint32_t frame_id = 0;
    std::uint32_t inference_id = 0;
    std::vector<SegmentationData> data;

    NvpList Encode() const;
    std::string GetString() const;
};

// Decoding of a received pair sequence into a record. Pairs are matched by
// exact name; unknown names are ignored, a missing name leaves the member as
// it is in out (callers pass a fresh record), a repeated name keeps the last
// value. A value of another kind than the wire format's throws
// com::quorixtech::iot::IotKindError.
void DecodeRecord(const NvpList &pairs, FrameInfo &out);
void DecodeRecord(const NvpList &pairs, DeviceInfo &out);
void DecodeRecord(const NvpList &pairs, Information<ClassificationData> &out);
void DecodeRecord(const NvpList &pairs, Information<DetectionBoxData> &out);
void DecodeRecord(const NvpList &pairs, SegmentInfo &out);
// Single list elements, as they sit inside a "data" entry.
void DecodeRecord(const NvpList &pairs, ClassificationData &out);
void DecodeRecord(const NvpList &pairs, DetectionBoxData &out);
void DecodeRecord(const NvpList &pairs, SegmentationData &out);

// For a sequence the caller no longer needs: the frame bytes are moved out of
// it instead of copied.
void DecodeRecord(NvpList &&pairs, FrameInfo &out);

} // namespace TOLVIXO
