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

inline TOLVIXO::FrameInfo frame(std::uint32_t frameId, const std::string &streamId = "cam-front") {
    TOLVIXO::FrameInfo f;
    f.stream_id = streamId;
    f.frame_id = frameId;
    f.timestamp = 20240102030405006LL;
    f.data = patternBytes(frameId);
    f.width = kWidth;
    f.height = kHeight;
    f.channels = 3;
    f.size = static_cast<std::uint32_t>(f.data.size());
    f.format = "com.vision.models.PIXEL_FORMAT_BGR8";
    f.compression = "com.vision.models.COMPRESSION_KIND_NONE";
    f.framerate = 29.97f;
    return f;
}

// A frame small enough to send many times.
inline TOLVIXO::FrameInfo smallFrame(std::uint32_t frameId, const std::string &streamId) {
    TOLVIXO::FrameInfo f;
    f.stream_id = streamId;
    f.frame_id = frameId;
    f.data = {1, 2, 3, 4, 5, 6};
    f.width = 2;
    f.height = 1;
    f.channels = 3;
    f.size = 6;
    f.format = "com.vision.models.PIXEL_FORMAT_BGR8";
    f.compression = "com.vision.models.COMPRESSION_KIND_NONE";
    return f;
}

inline TOLVIXO::DeviceInfo device() {
    TOLVIXO::DeviceInfo d;
    d.stream_id = "cam-front";
    d.mac_address = "02:42:ac:11:00:02";
    d.ip_address = "127.0.0.2";
    d.port = -554;
    d.uri = "rtsp://127.0.0.2/stream1";
    d.manufacturer = "Quorix";
    d.model = "QX-CAM-9";
    d.serial = "SN-0042";
    d.fw_version = "3.1.4";
    d.dev_id = "dev-7";
    d.status = "com.vision.models.DEVICE_STATUS_ONLINE";
    d.kind = "com.vision.models.DEVICE_KIND_CAMERA";
    d.protocol = "com.vision.models.INTERFACE_RTSP";
    return d;
}

inline TOLVIXO::Information<TOLVIXO::ClassificationData> classification() {
    TOLVIXO::Information<TOLVIXO::ClassificationData> c;
    c.engine_id = "classifier-1";
    c.stream_id = "cam-front";
    c.frame_id = 4000000000u;
    c.data.push_back({-3, "logits", "cat", 0.75f});
    c.data.push_back({281, "logits", "tabby", 0.125f});
    return c;
}

inline TOLVIXO::Information<TOLVIXO::DetectionBoxData> detection() {
    TOLVIXO::Information<TOLVIXO::DetectionBoxData> d;
    d.engine_id = "detector-2";
    d.stream_id = "cam-front";
    d.frame_id = 17;
    TOLVIXO::DetectionBoxData a;
    a.obj_id = 5;
    a.class_id = -1;
    a.obj_label = "person-5";
    a.class_label = "person";
    a.x1 = 10.5f;
    a.y1 = 20.25f;
    a.x2 = 300.0f;
    a.y2 = 400.75f;
    a.probability = 0.875f;
    a.meta = "{\"track\":3}";
    TOLVIXO::DetectionBoxData b = a;
    b.obj_id = 6;
    b.class_id = 2;
    b.obj_label = "car-6";
    b.class_label = "car";
    b.meta = "";
    d.data = {a, b};
    return d;
}

inline TOLVIXO::SegmentInfo segmentation() {
    TOLVIXO::SegmentInfo s;
    s.engine_id = "segmenter-3";
    s.stream_id = "cam-front";
    s.frame_id = 17;
    s.inference_id = 99;
    TOLVIXO::SegmentationData m;
    m.id = 1;
    m.repeat = 2;
    m.width = 4;
    m.height = 2;
    m.size = 8;
    m.channels = 1;
    m.color = 0xff00ffu;
    m.label = "road";
    m.probability = 0.5f;
    m.data = {0, 1, 2, 3, 4, 5, 6, 255};
    s.data = {m};
    return s;
}

inline TOLVIXO::UniInfo uni() {
    TOLVIXO::UniInfo u;
    TOLVIXO::IXO_VideoFrameData first;
    const TOLVIXO::FrameInfo f = frame(21);
    first.stream_id = f.stream_id;
    first.frame_id = f.frame_id;
    first.timestamp = f.timestamp;
    first.data = f.data;
    first.width = f.width;
    first.height = f.height;
    first.channels = f.channels;
    first.size = f.size;
    first.format = f.format;
    first.compression = f.compression;
    first.framerate = f.framerate;
    first.classificationResult.push_back({"classifier-1", 4294967295u, "logits", "cat", 0.75f});
    TOLVIXO::IXO_DetectionBoxData box;
    box.engine_id = "detector-2";
    box.obj_id = 4000000001u;
    box.class_id = 3;
    box.obj_label = "bike-1";
    box.class_label = "bike";
    box.x1 = 1.5f;
    box.y1 = 2.5f;
    box.x2 = 3.5f;
    box.y2 = 4.5f;
    box.probability = 0.25f;
    box.meta = "m";
    first.detectionResult = {box, box};
    first.detectionResult[1].obj_id = 2;
    TOLVIXO::IXO_SegmentationData mask;
    mask.id = 9;
    mask.repeat = 1;
    mask.width = 2;
    mask.height = 2;
    mask.size = 4;
    mask.channels = 1;
    mask.color = 7;
    mask.label = "sky";
    mask.probability = 0.5f;
    mask.data = {9, 8, 7, 6};
    first.segmentationResult = {mask};

    TOLVIXO::IXO_VideoFrameData second;
    second.stream_id = "cam-rear";
    second.frame_id = 22;
    second.data = {1, 2, 3};
    second.size = 3;

    u.videoList = {first, second};
    TOLVIXO::IXO_DeviceInfoData dev;
    dev.stream_id = "cam-front";
    dev.ip_address = "127.0.0.3";
    dev.port = 8554;
    dev.uri = "rtsp://127.0.0.3/a";
    TOLVIXO::IXO_DeviceInfoData rear = dev;
    rear.stream_id = "cam-rear";
    rear.serial = "SN-2";
    u.deviceList = {dev, rear};
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
