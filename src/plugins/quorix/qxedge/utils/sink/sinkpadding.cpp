// Padding (picture and loader results into the working records) and
// publishing (encode and write each selected record) of one frame.

#include "sinkpadding.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "convert.h"
#include "image_codecs.h"
#include "qxedgesink_private.h"
#include "utils.h"

#define GST_CAT_DEFAULT qx_edgesink_debug_category

namespace {

const char *const kCompressionNone = "com.vision.models.COMPRESSION_KIND_NONE";
const char *const kCompressionEncoded = "com.vision.models.COMPRESSION_KIND_GST_ENCODED";
// The bytes are B,G,R although the token says RGB; subscribers rely on both.
const char *const kPixelFormatRgb8 = "com.vision.models.PIXEL_FORMAT_RGB8";

// Bounds-checked stores: a picture that does not fit the record must fail
// the frame, never write past the buffer.
struct Picture {
    unsigned char *bytes;
    std::size_t size;
};

void storeRow(Picture data, std::size_t at, const unsigned char *row, std::size_t length) {
    if (at > data.size || length > data.size - at) {
        throw std::out_of_range("picture row at " + std::to_string(at) + " does not fit " + std::to_string(data.size) +
                                " bytes");
    }
    std::memcpy(data.bytes + at, row, length);
}

std::vector<unsigned char> &pictureOf(QxEdgeSinkPrivate *priv, int toUni) {
    if (toUni == 1) {
        return priv->uniInfo.videoList.at(0).data;
    }
    return priv->frameInfo.data;
}

// The record's bytes as a height x width B,G,R image, for the conversion to
// write into directly; a record too short for it fails the frame as a
// bounds-checked store would.
cv::Mat pictureIn(Picture data, int width, int height) {
    const std::size_t needed = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3;
    if (needed > data.size) {
        throw std::out_of_range("picture of " + std::to_string(needed) + " bytes does not fit " +
                                std::to_string(data.size) + " bytes");
    }
    return cv::Mat(height, width, CV_8UC3, data.bytes);
}

void convertPicture(QxEdgeSink *sink, const GstVideoFrame &frame, Picture data, int writeDebugImage);

template <typename VideoRecord>
void fillPicture(QxEdgeSink *sink, const GstVideoFrame &frame, GstBuffer *buffer, VideoRecord &target, int toUni) {
    QxEdgeSinkPrivate *priv = sink->priv;
    const int fpsD = GST_VIDEO_INFO_FPS_D(&frame.info);
    target.framerate = fpsD == 0 ? 0.0f : static_cast<float>(GST_VIDEO_INFO_FPS_N(&frame.info) / fpsD);
    if (sink->encoded == 0) {
        const auto channels = static_cast<std::size_t>(GST_VIDEO_FRAME_N_COMPONENTS(&frame));
        if (target.compression == kCompressionNone) {
            const std::size_t needed =
                static_cast<std::size_t>(priv->width) * static_cast<std::size_t>(priv->height) * channels;
            const std::size_t held = toUni == 0 ? priv->pictureBytes : target.data.size();
            if (needed != held) {
                target.width = static_cast<std::uint32_t>(priv->width);
                target.height = static_cast<std::uint32_t>(priv->height);
            }
            if (toUni == 0) {
                // Converted at publishing, into the sample itself.
                priv->frameInfo.format = kPixelFormatRgb8;
                std::vector<unsigned char>().swap(target.data);
                priv->pictureBytes = needed;
                priv->pendingPicture = &frame;
                target.size = static_cast<std::uint32_t>(needed);
                return;
            }
            target.data.resize(needed);
            paddingImageData(sink, frame, toUni, 0);
        } else {
            g_message("edgesink->compressionKind used other encoder, need to implement.");
        }
    } else if (sink->encoded == 1) {
        target.width = static_cast<std::uint32_t>(priv->width);
        target.height = static_cast<std::uint32_t>(priv->height);
        target.compression = kCompressionEncoded;
        const gsize size = gst_buffer_get_size(buffer);
        target.data.resize(size);
        if (gst_buffer_extract(buffer, 0, target.data.data(), size) != size) {
            throw std::runtime_error("could not read the whole encoded buffer");
        }
    } else {
        g_message("edgesink->compressionKind used other encoder, need to implement.");
    }
    target.size = static_cast<std::uint32_t>(target.data.size());
}

Edge &sessionOf(QxEdgeSinkPrivate *priv) {
    if (!priv->edge) {
        throw std::logic_error("publishing before the bus session was opened");
    }
    return *priv->edge;
}

// Writes the frame record with its picture lent to the sample rather than
// copied into it (a 1080p picture is 6 MB); the record gets it back after.
void writeFrame(Edge &session, const std::string &name, TOLVIXO::FrameInfo &frame) {
    std::vector<unsigned char> picture = std::move(frame.data);
    frame.data.clear();
    TOLVIXO::NvpList pairs = frame.Encode();
    auto lent = std::find_if(pairs.begin(), pairs.end(), [](const auto &pair) { return pair.name() == "data"; });
    lent->value().byteSeqRef().swap(picture);
    struct GiveBack {
        std::vector<unsigned char> &from;
        std::vector<unsigned char> &to;
        ~GiveBack() { to.swap(from); }
    } giveBack{lent->value().byteSeqRef(), frame.data};
    session.writeSample(name, pairs);
}

// Writes the frame record with its picture converted from the mapped frame
// straight into the bus sample.
void writeFrameConverting(QxEdgeSink *sink, Edge &session, const std::string &name, TOLVIXO::FrameInfo &frame) {
    QxEdgeSinkPrivate *priv = sink->priv;
    const TOLVIXO::NvpList pairs = frame.Encode();
    auto data = std::find_if(pairs.begin(), pairs.end(), [](const auto &pair) { return pair.name() == "data"; });
    const GstVideoFrame &picture = *priv->pendingPicture;
    const std::size_t size = priv->pictureBytes;
    session.writeSample(name, pairs,
                        {static_cast<std::size_t>(data - pairs.begin()), size, [&](std::uint8_t *out) {
                             convertPicture(sink, picture, Picture{out, size}, 0);
                         }});
}

bool debugDumpsWanted() { return gst_debug_category_get_threshold(GST_CAT_DEFAULT) >= GST_LEVEL_DEBUG; }

} // namespace

void paddingData(QxEdgeSink *sink, GstVideoFrame frame, GstBuffer *buffer) {
    GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(buffer);
    QxEdgeSinkPrivate *priv = sink->priv;
    struct ForgetFrame {
        QxEdgeSinkPrivate *priv;
        ~ForgetFrame() { priv->pendingPicture = nullptr; }
    } forgetFrame{priv};
    if (priv->taggroups.empty()) {
        publishData(sink);
        return;
    }
    for (const std::string &name : priv->taggroups) {
        switch (hash_(name.c_str())) {
        case hash_("VideoFrameData"):
            GST_INFO_OBJECT(sink, "Call metaloader in VideoFrameData...");
            metaloader(meta, sink, frame, name);
            GST_INFO_OBJECT(sink, "load reset frame content information...");
            fillPicture(sink, frame, buffer, priv->frameInfo, 0);
            break;
        case hash_("uni"):
            // The classification line is what operators grep for here; kept.
            GST_INFO_OBJECT(sink, "Call metaloader in ClassificationData...");
            metaloader(meta, sink, frame, name);
            GST_INFO_OBJECT(sink, "load reset frame content information...");
            fillPicture(sink, frame, buffer, priv->uniInfo.videoList.at(0), 1);
            break;
        case hash_("DeviceInfoData"):
            GST_INFO_OBJECT(sink, "Call metaloader in DeviceInfoData...");
            metaloader(meta, sink, frame, name);
            break;
        case hash_("ClassificationData"):
            GST_INFO_OBJECT(sink, "Call metaloader in ClassificationData...");
            metaloader(meta, sink, frame, name);
            break;
        case hash_("DetectionBoxData"):
            GST_INFO_OBJECT(sink, "Call metaloader in DetectionBoxData...");
            metaloader(meta, sink, frame, name);
            break;
        case hash_("SegmentationData"):
            GST_INFO_OBJECT(sink, "Call metaloader in SegmentationData...");
            metaloader(meta, sink, frame, name);
            break;
        case hash_("EngineInfoData"):
            GST_INFO_OBJECT(sink, "Add EngineInfoData not support yet.");
            break;
        default:
            GST_ERROR_OBJECT(sink, "No matched tag group name to pad data to edge instance.");
            break;
        }
    }
    publishData(sink);
}

void paddingImageData(QxEdgeSink *sink, GstVideoFrame frame, int toUni, int writeDebugImage) {
    QxEdgeSinkPrivate *priv = sink->priv;
    // Always on frameInfo, also for the combined record: that is where peers
    // have always found the token.
    priv->frameInfo.format = kPixelFormatRgb8;
    std::vector<unsigned char> &data = pictureOf(priv, toUni);
    convertPicture(sink, frame, Picture{data.data(), data.size()}, writeDebugImage);
}

namespace {

void convertPicture(QxEdgeSink *sink, const GstVideoFrame &frame, Picture data, int writeDebugImage) {
    QxEdgeSinkPrivate *priv = sink->priv;
    const int width = priv->width;
    const int height = priv->height;
    const GstVideoInfo *info = &sink->info;
    auto plane = [&frame](int i) { return static_cast<const unsigned char *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, i)); };

    cv::Mat converted;
    const char *debugFile = nullptr;
    switch (hash_(GST_VIDEO_INFO_NAME(info))) {
    case hash_("I420"): {
        GST_INFO_OBJECT(sink, "Start to convert from I420");
        const int strideY = GST_VIDEO_INFO_PLANE_STRIDE(info, 0);
        const int strideCbCr = GST_VIDEO_INFO_PLANE_STRIDE(info, 2);
        GST_DEBUG_OBJECT(sink, "strideY = %d", strideY);
        GST_DEBUG_OBJECT(sink, "strideCbCr = %d", strideCbCr);
        converted = pictureIn(data, width, height);
        I420ToBgrInto(width, height, plane(0), plane(1), plane(2), strideY, strideCbCr, converted);
        debugFile = "./I420.bmp";
        break;
    }
    case hash_("NV12"): {
        GST_INFO_OBJECT(sink, "Start to convert from NV12");
        const int strideY = GST_VIDEO_INFO_PLANE_STRIDE(info, 0);
        const int strideCbCr = GST_VIDEO_INFO_PLANE_STRIDE(info, 1);
        GST_DEBUG_OBJECT(sink, "strideY = %d", strideY);
        GST_DEBUG_OBJECT(sink, "strideCbCr = %d", strideCbCr);
        converted = pictureIn(data, width, height);
        NV12ToBgrInto(width, height, plane(0), plane(1), strideY, strideCbCr, converted);
        debugFile = "./NV12.bmp";
        break;
    }
    case hash_("BGR"): {
        GST_INFO_OBJECT(sink, "Start to convert from BGR");
        const GstVideoFormatInfo *format = info->finfo;
        const std::size_t rowStart = static_cast<std::size_t>(GST_VIDEO_INFO_PLANE_STRIDE(info, 0));
        const std::size_t pixelStride = static_cast<std::size_t>(GST_VIDEO_FORMAT_INFO_PSTRIDE(format, 0));
        const unsigned char *component[3];
        for (int k = 0; k < 3; ++k) {
            component[k] = plane(GST_VIDEO_FORMAT_INFO_PLANE(format, k)) + GST_VIDEO_FORMAT_INFO_POFFSET(format, k);
        }
        // The source walks pixel by pixel without skipping row padding while
        // target rows start at multiples of the stride: a padded BGR frame
        // overruns the record and fails loudly rather than publish a skewed picture.
        const bool packedBgr = pixelStride == 3 && component[1] == component[2] + 1 && component[0] == component[2] + 2;
        if (packedBgr) {
            // Component 2 (B), 1 (G), 0 (R) already sit in that order: a row
            // is one copy, with the same positions as the pixel walk below.
            const std::size_t rowBytes = 3 * static_cast<std::size_t>(width);
            for (int r = 0; r < height; ++r) {
                storeRow(data, static_cast<std::size_t>(r) * rowStart, component[2] + r * rowBytes, rowBytes);
            }
        }
        std::size_t source = 0;
        for (int r = 0; r < height && !packedBgr; ++r) {
            for (int c = 0; c < width; ++c, source += pixelStride) {
                const unsigned char pixel[3] = {component[2][source], component[1][source], component[0][source]};
                storeRow(data, static_cast<std::size_t>(r) * rowStart + 3 * static_cast<std::size_t>(c), pixel, 3);
            }
        }
        debugFile = "./BGR.bmp";
        if (writeDebugImage != 0) {
            converted = cv::Mat(height, width, CV_8UC3);
            std::memcpy(converted.data, data.bytes, std::min(data.size, converted.total() * converted.elemSize()));
        }
        break;
    }
    default:
        return;
    }
    if (writeDebugImage != 0 && debugFile != nullptr && !converted.empty()) {
        TOLVIXO::writeImage(debugFile, converted);
    }
}

} // namespace

void publishData(QxEdgeSink *sink) {
    QxEdgeSinkPrivate *priv = sink->priv;
    for (const std::string &name : priv->taggroups) {
        switch (hash_(name.c_str())) {
        case hash_("VideoFrameData"):
            if (priv->pendingPicture != nullptr) {
                writeFrameConverting(sink, sessionOf(priv), name, priv->frameInfo);
            } else {
                writeFrame(sessionOf(priv), name, priv->frameInfo);
            }
            if (debugDumpsWanted()) GST_DEBUG_OBJECT(sink, "\n%s", priv->frameInfo.GetString().c_str());
            GST_INFO_OBJECT(sink, "VideoFrameData has wrote to marlet.");
            break;
        case hash_("DeviceInfoData"):
            sessionOf(priv).writeSample(name, priv->deviceInfo.Encode());
            if (debugDumpsWanted()) GST_DEBUG_OBJECT(sink, "\n%s", priv->deviceInfo.GetString().c_str());
            GST_INFO_OBJECT(sink, "DeviceInfoData has wrote to marlet.");
            break;
        case hash_("ClassificationData"):
            sessionOf(priv).writeSample(name, priv->classification.Encode());
            if (debugDumpsWanted()) GST_DEBUG_OBJECT(sink, "\n%s", priv->classification.GetString().c_str());
            priv->classification.data.clear();
            GST_INFO_OBJECT(sink, "ClassificationData has wrote to marlet.");
            break;
        case hash_("DetectionBoxData"):
            sessionOf(priv).writeSample(name, priv->detection.Encode());
            if (debugDumpsWanted()) GST_DEBUG_OBJECT(sink, "\n%s", priv->detection.GetString().c_str());
            priv->detection.data.clear();
            GST_INFO_OBJECT(sink, "DetectionBoxData has wrote to marlet.");
            break;
        case hash_("SegmentationData"):
            sessionOf(priv).writeSample(name, priv->segment.Encode());
            if (debugDumpsWanted()) GST_DEBUG_OBJECT(sink, "\n%s", priv->segment.GetString().c_str());
            priv->segment.data.clear();
            // "SegmentData": the wording subscribers' log checks know; kept.
            GST_INFO_OBJECT(sink, "SegmentData has wrote to marlet.");
            break;
        case hash_("uni"):
            // Under the video tag group's name: the session registered its
            // thing for that group, and the combined record replaces it.
            sessionOf(priv).writeSample("VideoFrameData", priv->uniInfo.Encode());
            priv->uniInfo.videoList.clear();
            priv->uniInfo.deviceList.clear();
            GST_INFO_OBJECT(sink, "UniInfomation has wrote to marlet.");
            break;
        case hash_("EngineInfoData"):
            GST_INFO_OBJECT(sink, "Publish EngineInfoData not support yet.");
            break;
        default:
            GST_ERROR_OBJECT(sink, "No matched tag group name to publish data to marlet.");
            break;
        }
    }
}
