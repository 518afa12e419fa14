// qxanalyze: computes detection boxes, a frame classification and a foreground mask
// from each picture and attaches them as GstQxBatchMeta, leaving the pixels untouched.

#include "gstqxanalyze.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <mutex>
#include <string>

#include <gst/video/video.h>

#include "address_format.h"
#include "centroid_tracker.h"
#include "digit_time.h"
#include "frame_analyzer.h"
#include "frame_sampler.h"
#include "gstqxmeta.h"
#include "mapped_frame.h"
#include "scene_classifier.h"

GST_DEBUG_CATEGORY_STATIC(qx_analyze_debug);
#define GST_CAT_DEFAULT qx_analyze_debug

namespace {

constexpr int kDefaultAnalysisWidth = 320;
constexpr int kDefaultMaskWidth = 64;
constexpr double kDefaultMinArea = 0.0002;
constexpr int kDefaultMaxObjects = 16;
constexpr int kDefaultMinContrast = 24;
// Objects jumping further than this share of the frame diagonal between frames get a new id.
constexpr float kTrackGateShare = 0.15f;
const char *const kObjectLabel = "object";

enum {
    PROP_0,
    PROP_STREAM_ID,
    PROP_DEVICE_ID,
    PROP_MANUFACTURER,
    PROP_MODEL,
    PROP_SERIAL,
    PROP_FW_VERSION,
    PROP_URI,
    PROP_IP_ADDRESS,
    PROP_MAC_ADDRESS,
    PROP_PORT,
    PROP_ANALYSIS_WIDTH,
    PROP_MASK_WIDTH,
    PROP_MIN_AREA,
    PROP_MAX_OBJECTS,
    PROP_MIN_CONTRAST,
    PROP_MODE,
};

// How foreground pixels are told apart; the values are part of the element's interface.
enum QxAnalyzeMode {
    QX_ANALYZE_MODE_DISTINCT = 0,
    QX_ANALYZE_MODE_MOTION = 1,
};

GType qx_analyze_mode_get_type() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {QX_ANALYZE_MODE_DISTINCT, "Pixels that stand out from the frame's background level", "distinct"},
        {QX_ANALYZE_MODE_MOTION, "Pixels that changed against the median of recent frames", "motion"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("QxAnalyzeMode", values));
    return type;
}

struct DeviceSettings {
    std::string streamId;
    std::string deviceId;
    std::string manufacturer;
    std::string model;
    std::string serial;
    std::string fwVersion;
    std::string uri;
    std::string ipAddress;
    std::string macAddress;
    int port = -1;
};

struct Settings {
    DeviceSettings device;
    qxanalytics::AnalyzerSettings analyzer;
    int analysisWidth = kDefaultAnalysisWidth;
    QxAnalyzeMode mode = QX_ANALYZE_MODE_DISTINCT;
};

} // namespace

struct QxAnalyzePrivate {
    // Properties are written by the application thread and read once per frame.
    std::mutex settingsLock;
    Settings settings;

    // Streaming thread only.
    GstVideoInfo info{};
    bool haveInfo = false;
    std::string upstreamStreamId;
    int nextFrameId = 0;
    qxanalytics::CentroidTracker tracker;
    qxanalytics::MotionBackground motion;
};

struct _QxAnalyze {
    GstBaseTransform parent;
    QxAnalyzePrivate *priv;
};

G_DEFINE_TYPE(QxAnalyze, qx_analyze, GST_TYPE_BASE_TRANSFORM)

namespace {

#define QX_ANALYZE_FORMATS "{ BGR, RGB, BGRx, RGBx, I420, NV12 }"

GstStaticPadTemplate sinkTemplate = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS,
                                                            GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(QX_ANALYZE_FORMATS)));
GstStaticPadTemplate srcTemplate = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
                                                           GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(QX_ANALYZE_FORMATS)));

std::string *deviceField(DeviceSettings &device, guint propId) {
    switch (propId) {
    case PROP_STREAM_ID:
        return &device.streamId;
    case PROP_DEVICE_ID:
        return &device.deviceId;
    case PROP_MANUFACTURER:
        return &device.manufacturer;
    case PROP_MODEL:
        return &device.model;
    case PROP_SERIAL:
        return &device.serial;
    case PROP_FW_VERSION:
        return &device.fwVersion;
    case PROP_URI:
        return &device.uri;
    case PROP_IP_ADDRESS:
        return &device.ipAddress;
    case PROP_MAC_ADDRESS:
        return &device.macAddress;
    default:
        return nullptr;
    }
}

// An address that does not parse is refused and the previous value kept, so one typo
// does not publish a wrong address with every frame. Empty clears the field.
bool acceptAddress(QxAnalyze *self, guint propId, const std::string &value) {
    if (value.empty()) return true;
    if (propId == PROP_IP_ADDRESS && !qxanalytics::isIpAddress(value)) {
        GST_ERROR_OBJECT(self, "ip-address \"%s\" is not an IPv4 or IPv6 address; keeping the previous value",
                         value.c_str());
        return false;
    }
    if (propId == PROP_MAC_ADDRESS && !qxanalytics::isMacAddress(value)) {
        GST_ERROR_OBJECT(self,
                         "mac-address \"%s\" is not six hex pairs separated by ':' or '-'; keeping the previous value",
                         value.c_str());
        return false;
    }
    return true;
}

void qx_analyze_set_property(GObject *object, guint propId, const GValue *value, GParamSpec *pspec) {
    QxAnalyze *self = QX_ANALYZE(object);
    std::lock_guard<std::mutex> guard(self->priv->settingsLock);
    Settings &settings = self->priv->settings;
    if (std::string *field = deviceField(settings.device, propId)) {
        const gchar *text = g_value_get_string(value);
        const std::string newValue = text ? text : "";
        if (acceptAddress(self, propId, newValue)) *field = newValue;
        return;
    }
    switch (propId) {
    case PROP_PORT:
        settings.device.port = g_value_get_int(value);
        break;
    case PROP_ANALYSIS_WIDTH:
        settings.analysisWidth = g_value_get_int(value);
        break;
    case PROP_MASK_WIDTH:
        settings.analyzer.maskWidth = g_value_get_int(value);
        break;
    case PROP_MIN_AREA:
        settings.analyzer.minAreaFraction = g_value_get_double(value);
        break;
    case PROP_MAX_OBJECTS:
        settings.analyzer.maxObjects = g_value_get_int(value);
        break;
    case PROP_MIN_CONTRAST:
        settings.analyzer.minContrast = g_value_get_int(value);
        break;
    case PROP_MODE:
        settings.mode = static_cast<QxAnalyzeMode>(g_value_get_enum(value));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, propId, pspec);
        break;
    }
}

void qx_analyze_get_property(GObject *object, guint propId, GValue *value, GParamSpec *pspec) {
    QxAnalyze *self = QX_ANALYZE(object);
    std::lock_guard<std::mutex> guard(self->priv->settingsLock);
    Settings &settings = self->priv->settings;
    if (std::string *field = deviceField(settings.device, propId)) {
        g_value_set_string(value, field->c_str());
        return;
    }
    switch (propId) {
    case PROP_PORT:
        g_value_set_int(value, settings.device.port);
        break;
    case PROP_ANALYSIS_WIDTH:
        g_value_set_int(value, settings.analysisWidth);
        break;
    case PROP_MASK_WIDTH:
        g_value_set_int(value, settings.analyzer.maskWidth);
        break;
    case PROP_MIN_AREA:
        g_value_set_double(value, settings.analyzer.minAreaFraction);
        break;
    case PROP_MAX_OBJECTS:
        g_value_set_int(value, settings.analyzer.maxObjects);
        break;
    case PROP_MIN_CONTRAST:
        g_value_set_int(value, settings.analyzer.minContrast);
        break;
    case PROP_MODE:
        g_value_set_enum(value, settings.mode);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, propId, pspec);
        break;
    }
}

void resetStream(QxAnalyzePrivate *priv) {
    priv->nextFrameId = 0;
    priv->tracker.reset();
    priv->motion.reset();
}

gboolean qx_analyze_start(GstBaseTransform *trans) {
    QxAnalyze *self = QX_ANALYZE(trans);
    resetStream(self->priv);
    self->priv->upstreamStreamId.clear();
    return TRUE;
}

gboolean qx_analyze_set_caps(GstBaseTransform *trans, GstCaps *incaps, GstCaps * /*outcaps*/) {
    QxAnalyze *self = QX_ANALYZE(trans);
    if (!gst_video_info_from_caps(&self->priv->info, incaps)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("qxanalyze cannot read the video caps"),
                          ("caps: %" GST_PTR_FORMAT, incaps));
        self->priv->haveInfo = false;
        return FALSE;
    }
    self->priv->haveInfo = true;
    return TRUE;
}

// A new upstream stream starts its frame ids from 0 again; the same stream re-announced
// (e.g. after a seek) keeps counting so ids stay unique within it.
gboolean qx_analyze_sink_event(GstBaseTransform *trans, GstEvent *event) {
    QxAnalyze *self = QX_ANALYZE(trans);
    if (GST_EVENT_TYPE(event) == GST_EVENT_STREAM_START) {
        const gchar *streamId = nullptr;
        gst_event_parse_stream_start(event, &streamId);
        const std::string id = streamId ? streamId : "";
        if (id != self->priv->upstreamStreamId) {
            self->priv->upstreamStreamId = id;
            resetStream(self->priv);
        }
    }
    return GST_BASE_TRANSFORM_CLASS(qx_analyze_parent_class)->sink_event(trans, event);
}

std::string formatText(const char *format, double a, double b) {
    char text[96];
    std::snprintf(text, sizeof(text), format, a, b);
    return text;
}

void fillFrame(QxAnalyze *self, const Settings &settings, const qxanalytics::ForegroundResult &foreground,
               const qxanalytics::SceneVerdict &scene, const std::vector<int> &ids, GstQxBatchMeta *meta) {
    QxAnalyzePrivate *priv = self->priv;
    const GstVideoInfo &info = priv->info;
    std::string streamId = settings.device.streamId;
    if (streamId.empty()) streamId = !priv->upstreamStreamId.empty() ? priv->upstreamStreamId : GST_OBJECT_NAME(self);

    VideoFrameData frame;
    frame.stream_id = streamId;
    frame.frame_id = priv->nextFrameId++;
    frame.timestamp = qxanalytics::digitLocalTime(std::chrono::system_clock::now());
    frame.width = GST_VIDEO_INFO_WIDTH(&info);
    frame.height = GST_VIDEO_INFO_HEIGHT(&info);
    frame.depth = static_cast<int>(GST_VIDEO_INFO_COMP_DEPTH(&info, 0));
    frame.channels = static_cast<int>(GST_VIDEO_INFO_N_COMPONENTS(&info));
    frame.device_idx = 0;
    frame.is_compress = false;

    quorix::ai::ClassificationResult cls;
    cls.index = static_cast<int>(scene.cls);
    cls.label = scene.label;
    cls.prob = scene.probability;
    cls.output = formatText("mean luma %.1f, colourfulness %.1f", scene.meanLuma, scene.colourfulness);
    frame.class_results.push_back(std::move(cls));

    for (std::size_t i = 0; i < foreground.objects.size(); ++i) {
        const auto &object = foreground.objects[i];
        quorix::ai::DetectionBoxResult box;
        box.obj_id = ids[i];
        box.obj_label = kObjectLabel;
        box.class_id = 0;
        box.class_label = kObjectLabel;
        box.x1 = object.box.x;
        box.y1 = object.box.y;
        box.x2 = object.box.x + object.box.width;
        box.y2 = object.box.y + object.box.height;
        box.prob = object.solidity;
        box.meta = formatText("area %.4f, solidity %.2f", object.areaFraction, object.solidity);
        frame.det_results.push_back(std::move(box));
    }

    const cv::Mat &coverage = foreground.coverage;
    frame.seg_results.reserve(static_cast<std::size_t>(coverage.rows));
    for (int y = 0; y < coverage.rows; ++y) {
        std::vector<quorix::ai::SegmentResult> row(static_cast<std::size_t>(coverage.cols));
        const uchar *cells = coverage.ptr<uchar>(y);
        for (int x = 0; x < coverage.cols; ++x) {
            auto &cell = row[static_cast<std::size_t>(x)];
            const float covered = cells[x] / 255.f;
            const bool isForeground = cells[x] >= 128;
            cell.class_id = isForeground ? 1 : 0;
            cell.prob = isForeground ? covered : 1.f - covered;
            cell.label = isForeground ? "foreground" : "background";
        }
        frame.seg_results.push_back(std::move(row));
    }

    DeviceInfoData device;
    device.stream_id = streamId;
    device.mac_address = settings.device.macAddress;
    device.ip_address = settings.device.ipAddress;
    device.port = settings.device.port;
    device.uri = settings.device.uri;
    device.manufacturer = settings.device.manufacturer;
    device.model = settings.device.model;
    device.serial = settings.device.serial;
    device.fw_version = settings.device.fwVersion;
    device.dev_id = settings.device.deviceId;

    // One frame and its device per buffer: results computed here describe this picture only,
    // so a record already on the buffer is replaced rather than mixed with ours.
    meta->devices.assign(1, std::move(device));
    meta->frames.assign(1, std::move(frame));
}

GstFlowReturn qx_analyze_transform_ip(GstBaseTransform *trans, GstBuffer *buffer) {
    QxAnalyze *self = QX_ANALYZE(trans);
    QxAnalyzePrivate *priv = self->priv;
    if (!priv->haveInfo) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("qxanalyze received a buffer before its caps"), (nullptr));
        return GST_FLOW_NOT_NEGOTIATED;
    }
    Settings settings;
    {
        std::lock_guard<std::mutex> guard(priv->settingsLock);
        settings = priv->settings;
    }

    try {
        // Read-only: the pixels pass on unchanged, and a write map would copy shared memory.
        qxanalytics::MappedFrame mapped(&priv->info, buffer, GST_MAP_READ);
        if (!mapped.ok()) {
            GST_ELEMENT_WARNING(self, STREAM, FAILED,
                                ("qxanalyze could not map a video frame; it passes without results"),
                                ("buffer %" GST_PTR_FORMAT, buffer));
            return GST_FLOW_OK;
        }
        qxanalytics::SampledPlanes planes;
        if (!qxanalytics::sampleFrame(mapped.frame(), settings.analysisWidth, planes)) {
            GST_WARNING_OBJECT(self, "format %s is not analysed",
                               gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&priv->info)));
            return GST_FLOW_OK;
        }
        const cv::Size frameSize(GST_VIDEO_INFO_WIDTH(&priv->info), GST_VIDEO_INFO_HEIGHT(&priv->info));
        const cv::Mat foregroundPixels = settings.mode == QX_ANALYZE_MODE_MOTION
                                             ? priv->motion.changedPixels(planes.luma, settings.analyzer.minContrast)
                                             : qxanalytics::distinctPixels(planes.luma, settings.analyzer.minContrast);
        const qxanalytics::ForegroundResult foreground =
            qxanalytics::describeForeground(foregroundPixels, frameSize, settings.analyzer);
        const qxanalytics::SceneVerdict scene = qxanalytics::classifyScene(planes.luma, planes.cb, planes.cr);
        // The planes may still point into the frame when no scaling was needed.
        planes = {};
        mapped.unmap();

        std::vector<cv::Point2f> centroids;
        for (const auto &object : foreground.objects)
            centroids.push_back(object.centroid);
        priv->tracker.setGate(kTrackGateShare *
                              std::hypot(static_cast<float>(frameSize.width), static_cast<float>(frameSize.height)));
        const std::vector<int> ids = priv->tracker.assign(centroids);

        GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(buffer);
        if (!meta) meta = gst_buffer_add_qx_batch_meta(buffer);
        if (!meta) {
            GST_WARNING_OBJECT(self, "could not attach batch metadata to %" GST_PTR_FORMAT, buffer);
            return GST_FLOW_OK;
        }
        fillFrame(self, settings, foreground, scene, ids, meta);
        GST_LOG_OBJECT(self, "frame %d: %zu objects, %s", meta->frames.front().frame_id, foreground.objects.size(),
                       scene.label.c_str());
    } catch (const std::exception &error) {
        // A failure on one picture loses that picture's results, not the stream.
        GST_ELEMENT_WARNING(self, STREAM, FAILED, ("qxanalyze could not analyse a frame: %s", error.what()), (nullptr));
    }
    return GST_FLOW_OK;
}

void qx_analyze_finalize(GObject *object) {
    QxAnalyze *self = QX_ANALYZE(object);
    delete self->priv;
    self->priv = nullptr;
    G_OBJECT_CLASS(qx_analyze_parent_class)->finalize(object);
}

void installString(GObjectClass *klass, guint id, const char *name, const char *nick, const char *blurb) {
    g_object_class_install_property(
        klass, id,
        g_param_spec_string(
            name, nick, blurb, "",
            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
}

void installInt(GObjectClass *klass, guint id, const char *name, const char *nick, const char *blurb, int low, int high,
                int value) {
    g_object_class_install_property(
        klass, id,
        g_param_spec_int(
            name, nick, blurb, low, high, value,
            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
}

} // namespace

static void qx_analyze_class_init(QxAnalyzeClass *klass) {
    GObjectClass *gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass *elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass *transformClass = GST_BASE_TRANSFORM_CLASS(klass);

    gobjectClass->set_property = qx_analyze_set_property;
    gobjectClass->get_property = qx_analyze_get_property;
    gobjectClass->finalize = qx_analyze_finalize;

    installString(gobjectClass, PROP_STREAM_ID, "stream-id", "Stream id",
                  "Stream id written into every frame and device record; empty uses the upstream stream id");
    installString(gobjectClass, PROP_DEVICE_ID, "device-id", "Device id", "Id of the capture device");
    installString(gobjectClass, PROP_MANUFACTURER, "manufacturer", "Manufacturer", "Maker of the capture device");
    installString(gobjectClass, PROP_MODEL, "model", "Model", "Model of the capture device");
    installString(gobjectClass, PROP_SERIAL, "serial", "Serial", "Serial number of the capture device");
    installString(gobjectClass, PROP_FW_VERSION, "fw-version", "Firmware version",
                  "Firmware version of the capture device");
    installString(gobjectClass, PROP_URI, "uri", "URI", "Where the capture device's stream comes from");
    installString(gobjectClass, PROP_IP_ADDRESS, "ip-address", "IP address",
                  "IPv4 or IPv6 address of the capture device; an invalid address is refused");
    installString(gobjectClass, PROP_MAC_ADDRESS, "mac-address", "MAC address",
                  "MAC address of the capture device (aa:bb:cc:dd:ee:ff); an invalid address is refused");
    installInt(gobjectClass, PROP_PORT, "port", "Port", "Port of the capture device, -1 when it has none", -1, 65535,
               -1);
    installInt(gobjectClass, PROP_ANALYSIS_WIDTH, "analysis-width", "Analysis width",
               "Width in pixels of the downscaled picture that is analysed; smaller is faster", 32, 4096,
               kDefaultAnalysisWidth);
    installInt(gobjectClass, PROP_MASK_WIDTH, "mask-width", "Mask width",
               "Width of the segmentation mask in cells (height follows the frame's aspect); 0 attaches no mask", 0,
               1024, kDefaultMaskWidth);
    g_object_class_install_property(
        gobjectClass, PROP_MIN_AREA,
        g_param_spec_double(
            "min-area", "Minimum area", "Smallest object reported, as a share of the frame's area", 0.0, 1.0,
            kDefaultMinArea,
            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
    installInt(gobjectClass, PROP_MAX_OBJECTS, "max-objects", "Maximum objects",
               "Largest number of objects reported per frame, the largest first", 1, 256, kDefaultMaxObjects);
    installInt(gobjectClass, PROP_MIN_CONTRAST, "min-contrast", "Minimum contrast",
               "Least luma difference from the background level that counts as an object", 1, 255, kDefaultMinContrast);
    g_object_class_install_property(
        gobjectClass, PROP_MODE,
        g_param_spec_enum(
            "mode", "Mode",
            "distinct: objects that stand out from the background level, still or moving; motion: "
            "objects that move, against the median of frames sampled over the last 72 (it needs about 33 "
            "frames to learn the scene)",
            qx_analyze_mode_get_type(), QX_ANALYZE_MODE_DISTINCT,
            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(
        elementClass, "Quorix frame analysis", "Filter/Analyzer/Video",
        "Finds objects in each frame, distinct from the background or moving (boxes with ids from nearest-centroid "
        "tracking, probability from contour solidity), classifies the "
        "frame as \"dark\", \"bright\" or \"colourful\", computes a foreground mask at a reduced resolution "
        "and attaches all of it, with the device information from its properties, as GstQxBatchMeta. "
        "Pixels pass unchanged; frame ids count from 0 per stream; a batch record already on the buffer is replaced. "
        "No model files are needed.\n"
        "Example: gst-launch-1.0 videotestsrc pattern=ball ! video/x-raw,format=BGR,width=640,height=480 ! "
        "qxanalyze stream-id=cam0 device-id=cam0 mask-width=64 ! qxoverlay ! videoconvert ! autovideosink",
        "Quorix <support@quorixtech.com>");

    transformClass->start = GST_DEBUG_FUNCPTR(qx_analyze_start);
    transformClass->set_caps = GST_DEBUG_FUNCPTR(qx_analyze_set_caps);
    transformClass->sink_event = GST_DEBUG_FUNCPTR(qx_analyze_sink_event);
    transformClass->transform_ip = GST_DEBUG_FUNCPTR(qx_analyze_transform_ip);
    transformClass->passthrough_on_same_caps = FALSE;
    transformClass->transform_ip_on_passthrough = FALSE;

    GST_DEBUG_CATEGORY_INIT(qx_analyze_debug, "qxanalyze", 0, "debug category for qxanalyze element");
}

static void qx_analyze_init(QxAnalyze *self) {
    self->priv = new QxAnalyzePrivate();
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}
