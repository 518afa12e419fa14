#pragma once
// The combined pipe record: every frame of a batch with its own results, and
// the devices, in one sample of one tag group.

#include <cstdint>
#include <string>
#include <vector>

#include "marlet/iot_value.h"
#include "marlet/marlet.h"

namespace cv {
class Mat;
}

namespace TOLVIXO {

using UniNvpList = std::vector<com::quorixtech::iot::IOT_NVP>;

struct IXO_ClassificationData {
    std::string engine_id;
    std::uint32_t index = 0;
    std::string output;
    std::string label;
    float probability = 0.0f;

    UniNvpList Encode() const;
};

struct IXO_DetectionBoxData {
    std::string engine_id;
    std::uint32_t obj_id = 0;
    std::uint32_t class_id = 0;
    std::string obj_label;
    std::string class_label;
    float x1 = 0.0f;
    float y1 = 0.0f;
    float x2 = 0.0f;
    float y2 = 0.0f;
    float probability = 0.0f;
    std::string meta;

    UniNvpList Encode() const;
};

struct IXO_SegmentationData {
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

    UniNvpList Encode() const;
};

struct IXO_VideoFrameData {
    std::string stream_id;
    std::uint32_t frame_id = 0;
    std::int64_t timestamp = 0;
    std::vector<unsigned char> data;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t channels = 0;
    std::uint32_t size = 0;
    std::string format;
    std::string compression;
    float framerate = 0.0f;
    std::vector<IXO_ClassificationData> classificationResult;
    std::vector<IXO_DetectionBoxData> detectionResult;
    std::vector<IXO_SegmentationData> segmentationResult;

    IXO_VideoFrameData() = default;
    IXO_VideoFrameData(const IXO_VideoFrameData &) = default;
    IXO_VideoFrameData(IXO_VideoFrameData &&) noexcept = default;
    IXO_VideoFrameData &operator=(const IXO_VideoFrameData &) = default;
    IXO_VideoFrameData &operator=(IXO_VideoFrameData &&) noexcept = default;

    UniNvpList Encode() const;
    // Same behaviour as FrameInfo::ToMat.
    void ToMat(cv::Mat &out) const;
    // Builds a new frame from its pairs (the decoding rule of the separate records).
    static IXO_VideoFrameData Decode(const UniNvpList &pairs);
};

struct IXO_DeviceInfoData {
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

    IXO_DeviceInfoData() = default;
    IXO_DeviceInfoData(const IXO_DeviceInfoData &) = default;
    IXO_DeviceInfoData(IXO_DeviceInfoData &&) noexcept = default;
    IXO_DeviceInfoData &operator=(const IXO_DeviceInfoData &) = default;
    IXO_DeviceInfoData &operator=(IXO_DeviceInfoData &&) noexcept = default;

    UniNvpList Encode() const;
    static IXO_DeviceInfoData Decode(const UniNvpList &pairs);
};

struct UniInfo {
    std::vector<IXO_VideoFrameData> videoList;
    std::vector<IXO_DeviceInfoData> deviceList;

    UniNvpList Encode() const;
    static UniInfo Decode(const com::quorixtech::marlet::DataSample<UniNvpList> &sample);
    // The same from a bare pair sequence.
    static UniInfo Decode(const UniNvpList &pairs);
};

} // namespace TOLVIXO
