#pragma once
// Records with a value in every field, shared by the record and session tests,
// the read benchmark and the fuzz seeds.

#include <cstdint>
#include <string>
#include <vector>

#include "frame_information.h"
#include "uni_information.h"

namespace edge_samples {

// File sets of the main thing, as the elements choose them.
inline const char *const kConfig = "config/Marlet.xml";
inline const char *const kVideoOutProperties = "config/VideoFrameThingOutProperties.json";
inline const char *const kVideoOutClass = "definitions/ThingClass/com.vision.data/VideoFrameThingOutClass.json";
inline const char *const kVideoInProperties = "config/VideoFrameThingInProperties.json";
inline const char *const kVideoInClass = "definitions/ThingClass/com.vision.data/VideoFrameThingInClass.json";
inline const char *const kVideoTagGroup = "definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json";

inline const char *const kBgr = "com.vision.models.PIXEL_FORMAT_BGR8";
inline const char *const kUncompressed = "com.vision.models.COMPRESSION_KIND_NONE";

// A full-HD B,G,R frame whose bytes differ from row to row and column to
// column, so that a shifted or truncated copy does not compare equal.
inline TOLVIXO::FrameInfo frame(std::uint32_t frameId, const std::string &streamId = "cam-front") {
    constexpr std::uint32_t kWidth = 1920;
    constexpr std::uint32_t kHeight = 1080;
    std::vector<unsigned char> bytes(static_cast<std::size_t>(kWidth) * kHeight * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>((i * 31 + i / (kWidth * 3) * 7 + frameId) & 0xff);
    const auto size = static_cast<std::uint32_t>(bytes.size());
    return {streamId,      frameId, 20240102030405006LL, std::move(bytes), kWidth, kHeight, 3, size, kBgr,
            kUncompressed, 29.97f};
}

// A frame small enough to send many times.
inline TOLVIXO::FrameInfo smallFrame(std::uint32_t frameId, const std::string &streamId) {
    return {streamId, frameId, 0, {1, 2, 3, 4, 5, 6}, 2, 1, 3, 6, kBgr, kUncompressed, 0.0f};
}

inline TOLVIXO::DeviceInfo device() {
    return {"cam-front", "02:42:ac", "127.0.0.2", -554,     "rtsp://cam/1", "Quorix", "QX-9",
            "SN-42",     "3.1",      "dev-7",     "online", "camera",       "rtsp"};
}

inline TOLVIXO::Information<TOLVIXO::ClassificationData> classification() {
    return {"classifier-1", "cam-front", 4000000000u, {{-3, "logits", "cat", 0.75f}, {281, "logits", "tabby", 0.125f}}};
}

inline TOLVIXO::Information<TOLVIXO::DetectionBoxData> detection() {
    // Box members: obj_id, class_id, obj_label, class_label, x1, y1, x2, y2, probability, meta.
    return {"detector-2", "cam-front", 17, {{5, -1, "person-5", "person", 10.5f, 20.25f, 300, 400.75f, 0.875f, "{}"}}};
}

inline TOLVIXO::SegmentInfo segmentation() {
    // Mask members: id, repeat, width, height, size, channels, color, label, probability, data.
    return {"segmenter-3", "cam-front", 17, 99, {{1, 2, 4, 5, 8, 3, 0xff00ffu, "road", 0.5f, {0, 1, 2, 3, 255}}}};
}

// The combined record: a full-HD frame with one result of each kind, and two
// devices. The box's engine id is written as "engin_id" and read as
// "engine_id", so a reader gets the box without it.
inline TOLVIXO::UniInfo uni() {
    TOLVIXO::IXO_VideoFrameData video = TOLVIXO::IXO_VideoFrameData::Decode(frame(21).Encode());
    video.classificationResult = {{"classifier-1", 4294967295u, "logits", "cat", 0.75f}};
    video.detectionResult = {{"detector-2", 4000000001u, 3, "bike-1", "bike", 1.5f, 2.5f, 3.5f, 4.5f, 0.25f, "m"}};
    video.segmentationResult = {{9, 1, 2, 3, 4, 5, 7, "sky", 0.5f, {9, 8, 7, 6}}};
    TOLVIXO::IXO_DeviceInfoData rear = TOLVIXO::IXO_DeviceInfoData::Decode(device().Encode());
    rear.stream_id = "cam-rear";
    return {{video}, {TOLVIXO::IXO_DeviceInfoData::Decode(device().Encode()), rear}};
}

} // namespace edge_samples
