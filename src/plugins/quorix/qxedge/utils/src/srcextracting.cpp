#include "srcextracting.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <sstream>
#include <thread>

#include <opencv2/imgproc.hpp>

#include "convert.h"
#include "record_copy.h"
#include "utils.h"

#define GST_CAT_DEFAULT qx_edgesrc_debug

std::mutex extract_mutex;

namespace {

// Sleeps that a signal cuts short are resumed for the time left: std::this_thread::sleep_for does so.
void sleepMillisecond() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

bool receiverHasPicture(ReceiveImage &receiver) {
    std::lock_guard<std::mutex> lock(m);
    return receiver.image.cols != 0 && receiver.image.rows != 0;
}

// Copies the front entry off the queue. The queue is shared with the
// synchroniser worker, which appends under m, so m is held for the copy and
// the erase and nothing else.
bool takeFrontEntry(ReceiveImage &receiver, SynchronizedData &out) {
    std::lock_guard<std::mutex> lock(m);
    auto &queue = receiver.synchronizer.syncPool.synchronizedVec;
    if (queue.empty()) return false;
    out = queue.front();
    queue.erase(queue.begin());
    return true;
}

std::size_t queuedEntries(ReceiveImage &receiver) {
    std::lock_guard<std::mutex> lock(m);
    return receiver.synchronizer.syncPool.synchronizedVec.size();
}

int roundUp(int value, int multiple) { return (value + multiple - 1) / multiple * multiple; }

unsigned char *plane(GstVideoFrame *frame, int index) {
    return static_cast<unsigned char *>(GST_VIDEO_FRAME_PLANE_DATA(frame, index));
}

// BGR rows are copied at the frame's stride; never more than the frame holds,
// whatever size the picture has.
void copyPackedRows(const cv::Mat &image, GstVideoFrame *frame) {
    auto *dst = static_cast<guint8 *>(GST_VIDEO_FRAME_PLANE_DATA(frame, 0));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0);
    const int rows = std::min(image.rows, static_cast<int>(GST_VIDEO_FRAME_HEIGHT(frame)));
    const std::size_t rowBytes =
        static_cast<std::size_t>(std::min(image.cols, static_cast<int>(GST_VIDEO_FRAME_WIDTH(frame)))) * 3;
    for (int r = 0; r < rows; ++r)
        std::memcpy(dst + static_cast<std::size_t>(r) * stride, image.ptr(r), rowBytes);
}

} // namespace

gboolean qx_edge_receive_data(QxEdgeSrc *src, GstVideoFrame *frame, GstMeta *meta, GstBuffer *buffer) {
    try {
        ReceiveImage &receiver = src->priv->ImageReceiver;
        // Waits on this element's own flags only: another source's stop in the
        // same process must not end this wait. Ending without an entry leaves
        // the buffer unfilled, and the caller must not push it.
        bool extracted = false;
        if (PairingEngine *engine = src->priv->pairing.get()) {
            // Woken by the engine when a frame is released; the timeout only
            // bounds how long a stop waits to be seen.
            while (!extracted && !qx_edgesrc_reading_stopped(src) && !qx_edgesrc_flushing(src)) {
                SynchronizedData entry;
                if (engine->pop(entry, std::chrono::milliseconds(50)))
                    extracted = extractPairedEntry(src, frame, meta, std::move(entry));
            }
        }
        while (!extracted && !qx_edgesrc_reading_stopped(src) && !qx_edgesrc_flushing(src)) {
            sleepMillisecond();
            if (!receiverHasPicture(receiver)) continue;
            GST_DEBUG_OBJECT(src, "Start to call extractingData in qx_edge_receive_data.");
            extracted = extractingData(src, frame, meta, receiver, buffer);
        }
        if (!extracted) return FALSE;
        GST_DEBUG_OBJECT(src, "qx_edge_receive_data return TRUE.");
        return TRUE;
    } catch (...) {
        GST_ERROR_OBJECT(src, "Catch qx_edge_receive_data failed.");
        return FALSE;
    }
}

namespace {
bool convertInto(QxEdgeSrc *src, GstVideoFrame *frame, cv::Mat &image, bool rawOnBus, std::uint32_t frameId);

// The frame's picture as the record holds it (decoded where it is compressed).
bool takePicture(QxEdgeSrc *src, const TOLVIXO::FrameInfo &record, cv::Mat &image) {
    try {
        record.ToMat(image);
    } catch (const std::exception &e) {
        // A frame whose bytes do not match its size came off the bus: drop
        // it and wait for the next one rather than stop the stream.
        GST_WARNING_OBJECT(src, "Dropped frame %u that does not decode: %s", record.frame_id, e.what());
        return false;
    }
    // The encoded bytes that the picture conversion placed in the image.
    src->compressed_size = static_cast<guint>(std::min<std::size_t>(record.size, record.data.size()));
    return true;
}
} // namespace

bool extractingData(QxEdgeSrc *src, GstVideoFrame *frame, GstMeta *meta, ReceiveImage &receiver, GstBuffer *) {
    const std::size_t queued = queuedEntries(receiver);
    if (queued == 0) return false;
    GST_LOG_OBJECT(src, "There are %d data remain in synchronizedVec of syncPool.", static_cast<int>(queued));
    // Entry point of the queue from the element: ImageReceiver.synchronizer.syncPool.synchronizedVec.size() > 0

    cv::Mat &image = src->priv->image;
    bool rawOnBus = false;
    std::uint32_t frameId = 0;
    {
        std::lock_guard<std::mutex> extractLock(extract_mutex);
        SynchronizedData entry;
        if (!takeFrontEntry(receiver, entry)) return false;
        if (!takePicture(src, entry.frameInfo, image)) return false;
        rawOnBus = entry.frameInfo.compression.find("NONE") != std::string::npos;
        frameId = entry.frameInfo.frame_id;
        extractInfo2Meta(meta, &entry);
    }
    return convertInto(src, frame, image, rawOnBus, frameId);
}

bool extractPairedEntry(QxEdgeSrc *src, GstVideoFrame *frame, GstMeta *meta, SynchronizedData &&entry) {
    QxEdgeSrcPrivate *priv = src->priv;
    // The entry is kept until the next one: the picture is read where the bus
    // sample's bytes were moved to, and copied once, by the conversion into
    // the buffer.
    priv->current = std::move(entry);
    const TOLVIXO::FrameInfo &picture = priv->current.frameInfo;
    const std::size_t rawBytes = static_cast<std::size_t>(picture.width) * picture.height * 3;
    const bool raw = picture.compression.find("NONE") != std::string::npos;
    priv->image.release();
    if (raw && rawBytes != 0 && picture.data.size() >= rawBytes) {
        priv->image = cv::Mat(static_cast<int>(picture.height), static_cast<int>(picture.width), CV_8UC3,
                              const_cast<unsigned char *>(picture.data.data()));
        src->compressed_size = static_cast<guint>(std::min<std::size_t>(picture.size, picture.data.size()));
    } else if (!takePicture(src, picture, priv->image)) {
        return false;
    }
    extractInfo2Meta(meta, &priv->current);
    return convertInto(src, frame, priv->image, raw, picture.frame_id);
}

namespace {

bool convertInto(QxEdgeSrc *src, GstVideoFrame *frame, cv::Mat &image, bool rawOnBus, std::uint32_t frameId) {
    if (image.empty()) {
        GST_WARNING_OBJECT(src, "Dropped a frame without a picture.");
        return false;
    }

    const int width = GST_VIDEO_INFO_WIDTH(&src->info);
    const int height = GST_VIDEO_INFO_HEIGHT(&src->info);
    const char *formatName = GST_VIDEO_FRAME_FORMAT(frame) == GST_VIDEO_FORMAT_ENCODED
                                 ? "ENCODED"
                                 : gst_video_format_to_string(GST_VIDEO_FRAME_FORMAT(frame));
    const std::uint64_t format = hash_(formatName ? formatName : "");
    // Encoded bytes are not pixels: resizing them would only destroy them.
    const bool encoded = format == hash_("ENCODED");
    if (!encoded && width > 0 && height > 0 && (image.cols != width || image.rows != height)) {
        GST_DEBUG_OBJECT(src, "Size of image in marlet is different from pipeline frame info, need resize first.");
        cv::resize(image, image, cv::Size(roundUp(width, 4), roundUp(height, 2)), 0, 0, cv::INTER_LINEAR);
    }

    GST_DEBUG_OBJECT(src, "Convert marlet data to %s", formatName);
    switch (format) {
    // The planes are written as the frame lays them out, each at its own
    // stride and never past the frame, whatever the picture's size: odd
    // sizes and padded strides included.
    case hash_("I420"):
        writeI420Frame(image, GST_VIDEO_FRAME_WIDTH(frame), GST_VIDEO_FRAME_HEIGHT(frame), plane(frame, 0),
                       GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0), plane(frame, 1), GST_VIDEO_FRAME_PLANE_STRIDE(frame, 1),
                       plane(frame, 2), GST_VIDEO_FRAME_PLANE_STRIDE(frame, 2));
        GST_DEBUG_OBJECT(src, "Convert %s OK", formatName);
        break;
    case hash_("NV12"):
        writeNV12Frame(image, GST_VIDEO_FRAME_WIDTH(frame), GST_VIDEO_FRAME_HEIGHT(frame), plane(frame, 0),
                       GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0), plane(frame, 1), GST_VIDEO_FRAME_PLANE_STRIDE(frame, 1));
        GST_DEBUG_OBJECT(src, "Convert %s OK", formatName);
        break;
    case hash_("BGR"):
        copyPackedRows(image, frame);
        GST_DEBUG_OBJECT(src, "Convert %s OK", formatName);
        break;
    case hash_("ENCODED"):
        // Encoded output passes the publisher's encoded bytes through; it does
        // not encode. Raw frames under these caps are a pipeline set up wrong.
        if (rawOnBus)
            GST_WARNING_OBJECT(src,
                               "Frame %u on the bus is raw; image/jpeg and image/png output needs a "
                               "publisher of encoded frames.",
                               frameId);
        src->compressed = 1;
        break;
    default:
        GST_ERROR_OBJECT(src, "Pixel format is not allowed in qx_edge_receive_data().");
        break;
    }
    return true;
}

} // namespace

std::vector<std::vector<quorix::ai::SegmentResult>> segmentRows(const TOLVIXO::SegmentInfo &segment,
                                                                std::size_t maxEntries) {
    std::vector<std::vector<quorix::ai::SegmentResult>> rows;
    if (segment.data.empty()) return rows;
    // Every element of one record describes the same map; the first one's width is the row length.
    const std::size_t rowLength = segment.data.front().width;
    std::size_t total = 0;
    for (const auto &element : segment.data) {
        quorix::ai::SegmentResult pixel;
        pixel.class_id = static_cast<std::int32_t>(element.color);
        pixel.prob = element.probability;
        pixel.label = element.label;
        for (std::uint32_t i = 0; i < element.repeat && total < maxEntries; ++i, ++total) {
            if (rows.empty() || (rowLength != 0 && rows.back().size() == rowLength)) {
                rows.emplace_back();
                if (rowLength != 0) rows.back().reserve(rowLength);
            }
            rows.back().push_back(pixel);
        }
        if (total >= maxEntries) break;
    }
    return rows;
}

void extractInfo2Meta(GstMeta *meta, SynchronizedData *entry) {
    if (meta == nullptr) {
        GST_DEBUG("GstMeta is NULL");
        return;
    }
    auto *batch = reinterpret_cast<GstQxBatchMeta *>(meta);
    GST_INFO("[prepare to add metadata...]");

    const TOLVIXO::FrameInfo &record = entry->frameInfo;
    VideoFrameData frame;
    frame.stream_id = record.stream_id;
    frame.frame_id = static_cast<int>(record.frame_id);
    frame.timestamp = static_cast<std::uint64_t>(record.timestamp);
    frame.width = static_cast<int>(record.width);
    frame.height = static_cast<int>(record.height);
    frame.channels = static_cast<int>(record.channels);
    frame.depth = 8;
    frame.device_idx = 0;
    frame.is_compress = record.compression != "com.vision.models.COMPRESSION_KIND_NONE";

    for (const auto &c : entry->classification.data) {
        quorix::ai::ClassificationResult result;
        result.index = c.index;
        result.output = c.output;
        result.label = c.label;
        result.prob = c.probability;
        frame.class_results.push_back(std::move(result));
    }
    for (const auto &d : entry->detectionBox.data) {
        quorix::ai::DetectionBoxResult result;
        TOLVIXO::copyBoxFields(d, result);
        result.prob = d.probability;
        frame.det_results.push_back(std::move(result));
    }
    // A map is never larger than the frame it belongs to; the bound keeps a
    // record with absurd run lengths from exhausting memory.
    const std::size_t pixels = static_cast<std::size_t>(record.width) * record.height;
    const std::size_t maxEntries = std::max<std::size_t>(pixels, 1u << 16);
    frame.seg_results = segmentRows(entry->segmentInfo, std::min<std::size_t>(maxEntries, 1u << 24));

    DeviceInfoData device;
    TOLVIXO::copyDeviceFields(entry->deviceInfo, device);

    batch->frames.push_back(std::move(frame));
    batch->devices.push_back(std::move(device));
    GST_INFO("[metadata added of this GstVideoFrame.]");
    if (gst_debug_category_get_threshold(GST_CAT_DEFAULT) >= GST_LEVEL_DEBUG) {
        GST_DEBUG("\n%s", getMetaString(batch).c_str());
    }
}

std::string getMetaString(GstQxBatchMeta *meta) {
    std::ostringstream out;
    if (meta == nullptr) return out.str();
    for (const auto &frame : meta->frames) {
        out << "### VideoFrameData ###\n";
        out << "stream_id = " << frame.stream_id << "\n";
        out << "frame_id = " << frame.frame_id << "\n";
        out << "timestamp = " << frame.timestamp << "\n";
        out << "width = " << frame.width << "\n";
        out << "height = " << frame.height << "\n";
        out << "depth = " << frame.depth << "\n";
        out << "channels = " << frame.channels << "\n";
        out << "device_idx = " << frame.device_idx << "\n";
        out << "is_compress = " << frame.is_compress << "\n";
        for (std::size_t i = 0; i < frame.class_results.size(); ++i) {
            const auto &c = frame.class_results[i];
            out << "   classification result [" << i << "]\n";
            out << "   index = " << c.index << "\n";
            out << "   output = " << c.output << "\n";
            out << "   label = " << c.label << "\n";
            out << "   prob = " << c.prob << "\n";
        }
        for (std::size_t i = 0; i < frame.det_results.size(); ++i) {
            const auto &d = frame.det_results[i];
            out << "   detection box result [" << i << "]\n";
            out << "   (obj_id, obj_label) = (" << d.obj_id << ", " << d.obj_label << ")\n";
            out << "   (class_id, class_label) = (" << d.class_id << ", " << d.class_label << ")\n";
            out << "   (x1, y1, x2, y2) = (" << d.x1 << ", " << d.y1 << ", " << d.x2 << ", " << d.y2 << ")\n";
            out << "   prob = " << d.prob << "\n";
            out << "   meta = " << d.meta << "\n";
        }
        std::size_t pixels = 0;
        for (const auto &row : frame.seg_results)
            pixels += row.size();
        out << "seg_results = " << frame.seg_results.size() << " rows, " << pixels << " pixels\n";
        out << "-----------\n";
    }
    for (const auto &device : meta->devices) {
        out << "### DeviceInfoData ###\n";
        out << "stream_id = " << device.stream_id << "\n";
        out << "mac_address = " << device.mac_address << "\n";
        out << "ip_address = " << device.ip_address << "\n";
        out << "port = " << device.port << "\n";
        out << "uri = " << device.uri << "\n";
        out << "manufacturer = " << device.manufacturer << "\n";
        out << "model = " << device.model << "\n";
        out << "serial = " << device.serial << "\n";
        out << "fw_version = " << device.fw_version << "\n";
        out << "dev_id = " << device.dev_id << "\n";
        out << "status = " << device.status << "\n";
        out << "kind = " << device.kind << "\n";
        out << "protocol = " << device.protocol << "\n";
        out << "-----------\n";
    }
    return out.str();
}
