// The metadata loader. Pipeline values win where the batch has them; every
// record falls back to fixed filler values on its own, so a partial batch
// still yields complete records.

#include "metaloader.h"

#include "filler_segmentation.h"
#include "frame_information.h"
#include "qxedgesink_private.h"
#include "record_copy.h"
#include "uni_information.h"
#include "utils.h"

#define GST_CAT_DEFAULT qx_edgesink_debug_category

namespace {

// Peers match on these exact values; they are part of what subscribers see.
const char *const kFillerStreamId = "b5d84236-a23d-49fc-a574-e0cd944490bb";
const char *const kNotSet = "Not Set";
const char *const kFillerAddress = "XXXXXXXXXXXXXXXXXXXX";
const char *const kFillerManufacturer = "QUORIX";
const char *const kFillerModel = "VIDEO Streamer";
const char *const kFillerFirmware = "v1.0";
const char *const kFillerDeviceId = "DDS";
const char *const kFillerStatus = "com.vision.models.DEVICE_STATUS_ONLINE";
const char *const kFillerKind = "com.vision.models.DEVICE_KIND_UNKNOWN";
const char *const kFillerProtocol = "com.vision.models.INTERFACE_DDS";
const char *const kCompressionJpg = "com.vision.models.COMPRESSION_KIND_JPG";
const char *const kCompressionNone = "com.vision.models.COMPRESSION_KIND_NONE";
const char *const kPipelinePixelFormat = "com.vision.models.PIXEL_FORMAT_RGB8";
const char *const kFillerClassificationLabel = "[fake] test classification label string";
const char *const kFillerDetectionLabel = "[fake] test detection label string";

// What the loader may use from one batch, decided once per call.
struct Sources {
    const VideoFrameData *frame = nullptr;
    const DeviceInfoData *device = nullptr;
    std::uint32_t fillerFrameId = 0;
    std::uint32_t fillerChannels = 0;
};

Sources decideSources(GstQxBatchMeta *meta, QxEdgeSink *sink, const GstVideoFrame &frame) {
    Sources sources;
    sources.fillerFrameId = static_cast<std::uint32_t>(GST_BUFFER_OFFSET(frame.buffer));
    sources.fillerChannels = GST_VIDEO_FRAME_N_COMPONENTS(&frame);
    if (meta == nullptr) {
        GST_DEBUG_OBJECT(sink, "Quorix metadata is not exist in qxedgesink");
        return sources;
    }
    GST_DEBUG_OBJECT(sink, "Quorix metadata exist in qxedgesink");
    if (meta->frames.empty()) {
        GST_INFO_OBJECT(sink, "frame vector size is equal to 0 in metadata.");
        GST_INFO_OBJECT(sink, "device vector size is equal to 0 in metadata.");
        return sources;
    }
    // Only the first frame of a batch is published: one buffer, one picture.
    sources.frame = &meta->frames.front();
    GST_INFO_OBJECT(sink, "frame vector size is larger than 1 in metadata.");
    const int deviceIndex = sources.frame->device_idx;
    if (deviceIndex >= 0 && static_cast<std::size_t>(deviceIndex) < meta->devices.size()) {
        sources.device = &meta->devices[static_cast<std::size_t>(deviceIndex)];
        GST_INFO_OBJECT(sink, "device vector size is larger than 1 in metadata.");
    } else {
        GST_INFO_OBJECT(sink, "device vector size is equal to 0 in metadata.");
    }
    return sources;
}

// FrameInfo and the combined record's video entry share these members.
template <typename VideoRecord> void loadVideo(QxEdgeSink *sink, const Sources &sources, VideoRecord &target) {
    if (sources.frame == nullptr) {
        GST_INFO_OBJECT(sink, "VideoFrameData use fake information.");
        target.stream_id = kFillerStreamId;
        // The flag only ever holds 0 or 1, so this stays NONE; the test for 4
        // is what peers have always seen and is kept.
        target.compression = sink->encoded == 4 ? kCompressionJpg : kCompressionNone;
        target.frame_id = sources.fillerFrameId;
        target.channels = sources.fillerChannels;
        target.timestamp = static_cast<std::int64_t>(TOLVIXO::FrameInfo::GetDigitUTCTime());
        return;
    }
    GST_INFO_OBJECT(sink, "VideoFrameData use metadata from pipeline.");
    const VideoFrameData &frame = *sources.frame;
    target.stream_id = frame.stream_id;
    target.frame_id = static_cast<std::uint32_t>(frame.frame_id);
    target.timestamp = static_cast<std::int64_t>(frame.timestamp);
    target.width = static_cast<std::uint32_t>(frame.width);
    target.height = static_cast<std::uint32_t>(frame.height);
    target.channels = static_cast<std::uint32_t>(frame.channels);
    target.compression = frame.is_compress ? kCompressionJpg : kCompressionNone;
    target.format = kPipelinePixelFormat;
}

std::string orNotSet(const std::string &text) { return text.empty() ? kNotSet : text; }

template <typename DeviceRecord> void loadDevice(QxEdgeSink *sink, const Sources &sources, DeviceRecord &target) {
    if (sources.device == nullptr) {
        GST_INFO_OBJECT(sink, "DeviceInfoData use fake information.");
        target.stream_id = kFillerStreamId;
        target.mac_address = kFillerAddress;
        target.ip_address = kFillerAddress;
        target.port = -1;
        target.uri = kFillerAddress;
        target.manufacturer = kFillerManufacturer;
        target.model = kFillerModel;
        target.serial = kFillerStreamId;
        target.fw_version = kFillerFirmware;
        target.dev_id = kFillerDeviceId;
        target.status = kFillerStatus;
        target.kind = kFillerKind;
        target.protocol = kFillerProtocol;
        return;
    }
    GST_INFO_OBJECT(sink, "DeviceInfoData use metadata from pipeline.");
    const DeviceInfoData &device = *sources.device;
    target.stream_id = orNotSet(device.stream_id);
    target.mac_address = orNotSet(device.mac_address);
    target.ip_address = orNotSet(device.ip_address);
    target.port = device.port;
    target.uri = orNotSet(device.uri);
    target.manufacturer = orNotSet(device.manufacturer);
    target.model = orNotSet(device.model);
    target.serial = orNotSet(device.serial);
    target.fw_version = orNotSet(device.fw_version);
    target.dev_id = orNotSet(device.dev_id);
    target.status = orNotSet(device.status);
    target.kind = orNotSet(device.kind);
    target.protocol = orNotSet(device.protocol);
}

bool sameSegment(const quorix::ai::SegmentResult &a, const quorix::ai::SegmentResult &b) {
    return a.class_id == b.class_id && a.prob == b.prob && a.label == b.label;
}

// A segmentation map travels run-length coded: each run of equal neighbours
// in a row becomes one element with repeat = run length; width and height
// give the map's shape so subscribers can rebuild the rows.
template <typename Element>
void appendSegmentRuns(const std::vector<std::vector<quorix::ai::SegmentResult>> &rows, std::vector<Element> &out) {
    const auto width = static_cast<std::uint32_t>(rows.empty() ? 0 : rows.front().size());
    const auto height = static_cast<std::uint32_t>(rows.size());
    std::uint32_t id = 0;
    for (const auto &row : rows) {
        std::size_t start = 0;
        while (start < row.size()) {
            std::size_t end = start + 1;
            while (end < row.size() && sameSegment(row[end], row[start])) {
                ++end;
            }
            Element element;
            element.id = id++;
            element.repeat = static_cast<std::uint32_t>(end - start);
            element.width = width;
            element.height = height;
            element.size = element.repeat;
            element.channels = 1;
            element.color = static_cast<std::uint32_t>(row[start].class_id);
            element.label = row[start].label;
            element.probability = row[start].prob;
            out.push_back(std::move(element));
            start = end;
        }
    }
}

std::size_t segmentPixels(const VideoFrameData &frame) {
    std::size_t pixels = 0;
    for (const auto &row : frame.seg_results) {
        pixels += row.size();
    }
    return pixels;
}

void loadClassification(QxEdgeSink *sink, const Sources &sources,
                        TOLVIXO::Information<TOLVIXO::ClassificationData> &target) {
    if (sources.frame == nullptr) {
        GST_INFO_OBJECT(sink, "ClassificationData use fake information.");
        target.stream_id = kFillerStreamId;
        target.frame_id = sources.fillerFrameId;
        for (int i = 0; i < 3; ++i) {
            TOLVIXO::ClassificationData element;
            element.index = i;
            element.label = kFillerClassificationLabel;
            element.probability = 1.0f;
            target.data.push_back(std::move(element));
        }
        return;
    }
    GST_INFO_OBJECT(sink, "ClassificationData use metadata from pipeline.");
    target.stream_id = sources.frame->stream_id;
    target.frame_id = static_cast<std::uint32_t>(sources.frame->frame_id);
    for (const auto &result : sources.frame->class_results) {
        TOLVIXO::ClassificationData element;
        element.index = result.index;
        element.output = result.output;
        element.label = result.label;
        element.probability = result.prob;
        target.data.push_back(std::move(element));
    }
}

void loadDetection(QxEdgeSink *sink, const Sources &sources, TOLVIXO::Information<TOLVIXO::DetectionBoxData> &target) {
    if (sources.frame == nullptr) {
        GST_INFO_OBJECT(sink, "DetectionBoxData use fake information.");
        target.stream_id = kFillerStreamId;
        target.frame_id = sources.fillerFrameId;
        for (int i = 0; i < 3; ++i) {
            TOLVIXO::DetectionBoxData box;
            box.obj_id = i;
            box.class_id = i;
            box.obj_label = kFillerDetectionLabel;
            box.class_label = "X";
            box.x1 = 123.0f;
            box.y1 = 456.0f;
            box.x2 = 789.0f;
            box.y2 = 111.0f;
            box.probability = 1.0f;
            target.data.push_back(std::move(box));
        }
        return;
    }
    GST_INFO_OBJECT(sink, "DetectionBoxData use metadata from pipeline.");
    target.stream_id = sources.frame->stream_id;
    target.frame_id = static_cast<std::uint32_t>(sources.frame->frame_id);
    for (const auto &result : sources.frame->det_results) {
        TOLVIXO::DetectionBoxData box;
        TOLVIXO::copyBoxFields(result, box);
        box.probability = result.prob;
        target.data.push_back(std::move(box));
    }
}

void loadSegmentation(QxEdgeSink *sink, const Sources &sources, TOLVIXO::SegmentInfo &target) {
    target.inference_id = 0;
    if (sources.frame == nullptr) {
        GST_INFO_OBJECT(sink, "SegmentationData use fake information.");
        target.stream_id = kFillerStreamId;
        target.frame_id = sources.fillerFrameId;
        TOLVIXO::appendFillerSegmentation(target.data);
        return;
    }
    // "ppeline": the line is matched by existing log filters; kept as it is.
    GST_INFO_OBJECT(sink, "SegmentationData use metadata from ppeline.");
    target.stream_id = sources.frame->stream_id;
    target.frame_id = static_cast<std::uint32_t>(sources.frame->frame_id);
    appendSegmentRuns(sources.frame->seg_results, target.data);
}

void loadUni(QxEdgeSink *sink, const Sources &sources, TOLVIXO::UniInfo &target) {
    const std::string engineId = sink->priv->edge ? sink->priv->edge->thingId : std::string();
    // Padding writes the picture into videoList[0] unconditionally, so the
    // loader always leaves exactly one video entry (the frame) and one device.
    target.videoList.resize(1);
    TOLVIXO::IXO_VideoFrameData &video = target.videoList.front();
    loadVideo(sink, sources, video);

    TOLVIXO::IXO_DeviceInfoData device;
    loadDevice(sink, sources, device);
    target.deviceList.clear();
    target.deviceList.push_back(std::move(device));

    const VideoFrameData *frame = sources.frame;
    GST_INFO_OBJECT(sink, "There are %d classification results in pipeline metadata.",
                    frame ? static_cast<int>(frame->class_results.size()) : 0);
    GST_INFO_OBJECT(sink, "There are %d detection results in pipeline metadata.",
                    frame ? static_cast<int>(frame->det_results.size()) : 0);
    GST_INFO_OBJECT(sink, "[uni] There are %d segment results(pixels) in pipeline metadata.",
                    frame ? static_cast<int>(segmentPixels(*frame)) : 0);
    if (frame == nullptr) {
        return;
    }
    for (const auto &result : frame->class_results) {
        TOLVIXO::IXO_ClassificationData element;
        element.engine_id = engineId;
        element.index = static_cast<std::uint32_t>(result.index);
        element.output = result.output;
        element.label = result.label;
        element.probability = result.prob;
        video.classificationResult.push_back(std::move(element));
    }
    for (const auto &result : frame->det_results) {
        TOLVIXO::IXO_DetectionBoxData box;
        box.engine_id = engineId;
        TOLVIXO::copyBoxFields(result, box);
        box.probability = result.prob;
        video.detectionResult.push_back(std::move(box));
    }
    appendSegmentRuns(frame->seg_results, video.segmentationResult);
}

} // namespace

void metaloader(GstQxBatchMeta *meta, QxEdgeSink *sink, GstVideoFrame frame, std::string taggroup) {
    const Sources sources = decideSources(meta, sink, frame);
    QxEdgeSinkPrivate *priv = sink->priv;
    const std::string engineId = priv->edge ? priv->edge->thingId : std::string();
    switch (hash_(taggroup.c_str())) {
    case hash_("VideoFrameData"):
        loadVideo(sink, sources, priv->frameInfo);
        break;
    case hash_("DeviceInfoData"):
        loadDevice(sink, sources, priv->deviceInfo);
        break;
    case hash_("ClassificationData"):
        priv->classification.engine_id = engineId;
        loadClassification(sink, sources, priv->classification);
        break;
    case hash_("DetectionBoxData"):
        priv->detection.engine_id = engineId;
        loadDetection(sink, sources, priv->detection);
        break;
    case hash_("SegmentationData"):
        priv->segment.engine_id = engineId;
        loadSegmentation(sink, sources, priv->segment);
        break;
    case hash_("uni"):
        loadUni(sink, sources, priv->uniInfo);
        break;
    default:
        GST_ERROR_OBJECT(sink, "No matched taggroup in metadata loader.");
        break;
    }
}
