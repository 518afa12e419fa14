#pragma once
// Records with a value in every field, shared by the session tests and the
// helper programs that publish them from another process, so both sides know
// what must arrive.

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
inline const char *const kPipeTagGroup = "definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json";

constexpr std::uint32_t kWidth = 1920;
constexpr std::uint32_t kHeight = 1080;

// A full-HD B,G,R picture whose bytes differ from row to row and column to
// column, so a shifted or truncated copy does not compare equal.
inline std::vector<unsigned char> patternBytes(std::uint32_t seed) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(kWidth) * kHeight * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>((i * 31 + i / (kWidth * 3) * 7 + seed) & 0xff);
    }
    return bytes;
}

inline const char *const kBgr = "com.vision.models.PIXEL_FORMAT_BGR8";
inline const char *const kUncompressed = "com.vision.models.COMPRESSION_KIND_NONE";

inline TOLVIXO::FrameInfo frame(std::uint32_t frameId, const std::string &streamId = "cam-front") {
    std::vector<unsigned char> bytes = patternBytes(frameId);
    const auto size = static_cast<std::uint32_t>(bytes.size());
    return {streamId,      frameId, 20240102030405006LL, std::move(bytes), kWidth, kHeight, 3, size, kBgr,
            kUncompressed, 29.97f};
}

// A frame small enough to send many times.
inline TOLVIXO::FrameInfo smallFrame(std::uint32_t frameId, const std::string &streamId) {
    return {streamId, frameId, 0, {1, 2, 3, 4, 5, 6}, 2, 1, 3, 6, kBgr, kUncompressed, 0.0f};
}

inline TOLVIXO::DeviceInfo device() {
    return {"cam-front",
            "02:42:ac:11:00:02",
            "127.0.0.2",
            -554,
            "rtsp://127.0.0.2/stream1",
            "Quorix",
            "QX-CAM-9",
            "SN-0042",
            "3.1.4",
            "dev-7",
            "com.vision.models.DEVICE_STATUS_ONLINE",
            "com.vision.models.DEVICE_KIND_CAMERA",
            "com.vision.models.INTERFACE_RTSP"};
}

inline TOLVIXO::Information<TOLVIXO::ClassificationData> classification() {
    return {"classifier-1", "cam-front", 4000000000u, {{-3, "logits", "cat", 0.75f}, {281, "logits", "tabby", 0.125f}}};
}

inline TOLVIXO::Information<TOLVIXO::DetectionBoxData> detection() {
    // Members: obj_id, class_id, obj_label, class_label, x1, y1, x2, y2, probability, meta.
    return {"detector-2",
            "cam-front",
            17,
            {{5, -1, "person-5", "person", 10.5f, 20.25f, 300.0f, 400.75f, 0.875f, "{\"track\":3}"},
             {6, 2, "car-6", "car", 1.0f, 2.0f, 3.0f, 4.0f, 0.5f, ""}}};
}

inline TOLVIXO::SegmentInfo segmentation() {
    // Mask members: id, repeat, width, height, size, channels, color, label, probability, data.
    return {
        "segmenter-3", "cam-front", 17, 99, {{1, 2, 4, 2, 8, 1, 0xff00ffu, "road", 0.5f, {0, 1, 2, 3, 4, 5, 6, 255}}}};
}

inline TOLVIXO::UniInfo uni() {
    const TOLVIXO::FrameInfo f = frame(21);
    TOLVIXO::IXO_VideoFrameData first{f.stream_id, f.frame_id, f.timestamp, f.data,        f.width,    f.height,
                                      f.channels,  f.size,     f.format,    f.compression, f.framerate};
    first.classificationResult = {{"classifier-1", 4294967295u, "logits", "cat", 0.75f}};
    first.detectionResult = {{"detector-2", 4000000001u, 3, "bike-1", "bike", 1.5f, 2.5f, 3.5f, 4.5f, 0.25f, "m"},
                             {"detector-2", 2, 3, "bike-2", "bike", 5.5f, 6.5f, 7.5f, 8.5f, 0.75f, ""}};
    first.segmentationResult = {{9, 1, 2, 2, 4, 1, 7, "sky", 0.5f, {9, 8, 7, 6}}};

    TOLVIXO::IXO_VideoFrameData second;
    second.stream_id = "cam-rear";
    second.frame_id = 22;
    second.data = {1, 2, 3};
    second.size = 3;

    TOLVIXO::IXO_DeviceInfoData front;
    front.stream_id = "cam-front";
    front.ip_address = "127.0.0.3";
    front.port = 8554;
    front.uri = "rtsp://127.0.0.3/a";
    TOLVIXO::IXO_DeviceInfoData rear = front;
    rear.stream_id = "cam-rear";
    rear.serial = "SN-2";

    TOLVIXO::UniInfo u;
    u.videoList = {first, second};
    u.deviceList = {front, rear};
    return u;
}

// What a reader must make of uni(): the box encoder writes "engin_id" and the
// decoder looks for "engine_id", so boxes arrive without their engine id.
inline TOLVIXO::UniInfo uniAsReceived() {
    TOLVIXO::UniInfo u = uni();
    for (auto &f : u.videoList) {
        for (auto &box : f.detectionResult)
            box.engine_id.clear();
    }
    return u;
}

} // namespace edge_samples
