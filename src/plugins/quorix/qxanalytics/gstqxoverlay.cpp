// qxoverlay: draws the results that a buffer's GstQxBatchMeta carries onto its picture.

#include "gstqxoverlay.h"

#include <exception>
#include <mutex>

#include <gst/video/video.h>

#include "gstqxmeta.h"
#include "mapped_frame.h"
#include "overlay_painter.h"
#include "result_painting.h"

GST_DEBUG_CATEGORY_STATIC(qx_overlay_debug);
#define GST_CAT_DEFAULT qx_overlay_debug

namespace {

constexpr int kDefaultLineWidth = 2;
constexpr double kDefaultAlpha = 0.4;
constexpr guint kDefaultMaskColour = 0xFF8000;

enum {
    PROP_0,
    PROP_LINE_WIDTH,
    PROP_ALPHA,
    PROP_MASK_COLOR,
    PROP_DRAW_LABELS,
};

qxanalytics::Colour colourFromRgb(guint rgb) {
    return {static_cast<unsigned char>((rgb >> 16) & 0xFF), static_cast<unsigned char>((rgb >> 8) & 0xFF),
            static_cast<unsigned char>(rgb & 0xFF)};
}

guint rgbFromColour(const qxanalytics::Colour &colour) {
    return (static_cast<guint>(colour.r) << 16) | (static_cast<guint>(colour.g) << 8) | colour.b;
}

} // namespace

struct QxOverlayPrivate {
    std::mutex styleLock; // properties come from the application thread
    qxanalytics::PaintStyle style;

    // Streaming thread only.
    GstVideoInfo info{};
    bool haveInfo = false;
};

struct _QxOverlay {
    GstBaseTransform parent;
    QxOverlayPrivate *priv;
};

G_DEFINE_TYPE(QxOverlay, qx_overlay, GST_TYPE_BASE_TRANSFORM)

namespace {

#define QX_OVERLAY_FORMATS "{ BGR, RGB, BGRx, RGBx }"

GstStaticPadTemplate sinkTemplate = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS,
                                                            GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(QX_OVERLAY_FORMATS)));
GstStaticPadTemplate srcTemplate = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
                                                           GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(QX_OVERLAY_FORMATS)));

void qx_overlay_set_property(GObject *object, guint propId, const GValue *value, GParamSpec *pspec) {
    QxOverlay *self = QX_OVERLAY(object);
    std::lock_guard<std::mutex> guard(self->priv->styleLock);
    qxanalytics::PaintStyle &style = self->priv->style;
    switch (propId) {
    case PROP_LINE_WIDTH:
        style.lineWidth = g_value_get_int(value);
        break;
    case PROP_ALPHA:
        style.alpha = g_value_get_double(value);
        break;
    case PROP_MASK_COLOR:
        style.maskTint = colourFromRgb(g_value_get_uint(value));
        break;
    case PROP_DRAW_LABELS:
        style.drawLabels = g_value_get_boolean(value) == TRUE;
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, propId, pspec);
        break;
    }
}

void qx_overlay_get_property(GObject *object, guint propId, GValue *value, GParamSpec *pspec) {
    QxOverlay *self = QX_OVERLAY(object);
    std::lock_guard<std::mutex> guard(self->priv->styleLock);
    const qxanalytics::PaintStyle &style = self->priv->style;
    switch (propId) {
    case PROP_LINE_WIDTH:
        g_value_set_int(value, style.lineWidth);
        break;
    case PROP_ALPHA:
        g_value_set_double(value, style.alpha);
        break;
    case PROP_MASK_COLOR:
        g_value_set_uint(value, rgbFromColour(style.maskTint));
        break;
    case PROP_DRAW_LABELS:
        g_value_set_boolean(value, style.drawLabels ? TRUE : FALSE);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, propId, pspec);
        break;
    }
}

gboolean qx_overlay_set_caps(GstBaseTransform *trans, GstCaps *incaps, GstCaps * /*outcaps*/) {
    QxOverlay *self = QX_OVERLAY(trans);
    self->priv->haveInfo = gst_video_info_from_caps(&self->priv->info, incaps) == TRUE;
    if (!self->priv->haveInfo)
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("qxoverlay cannot read the video caps"),
                          ("caps: %" GST_PTR_FORMAT, incaps));
    return self->priv->haveInfo ? TRUE : FALSE;
}

GstFlowReturn qx_overlay_transform_ip(GstBaseTransform *trans, GstBuffer *buffer) {
    QxOverlay *self = QX_OVERLAY(trans);
    QxOverlayPrivate *priv = self->priv;
    if (!priv->haveInfo) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("qxoverlay received a buffer before its caps"), (nullptr));
        return GST_FLOW_NOT_NEGOTIATED;
    }
    // Buffers without results are not even mapped: they leave exactly as they came.
    const GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(buffer);
    if (!meta || meta->frames.empty()) return GST_FLOW_OK;

    qxanalytics::PaintStyle style;
    {
        std::lock_guard<std::mutex> guard(priv->styleLock);
        style = priv->style;
    }
    const GstVideoInfo &info = priv->info;
    try {
        // Results of a batch describe its first frame; that is the picture this buffer carries.
        const qxanalytics::PaintPlan plan = qxanalytics::planPainting(
            meta->frames.front(), cv::Size(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info)));
        if (plan.empty()) return GST_FLOW_OK;

        qxanalytics::MappedFrame mapped(&info, buffer, GST_MAP_READWRITE);
        if (!mapped.ok()) {
            GST_ELEMENT_WARNING(self, STREAM, FAILED, ("qxoverlay could not map a video frame; it passes undrawn"),
                                ("buffer %" GST_PTR_FORMAT, buffer));
            return GST_FLOW_OK;
        }
        const GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&info);
        const int type = (format == GST_VIDEO_FORMAT_BGRx || format == GST_VIDEO_FORMAT_RGBx) ? CV_8UC4 : CV_8UC3;
        const qxanalytics::ChannelOrder order = (format == GST_VIDEO_FORMAT_RGB || format == GST_VIDEO_FORMAT_RGBx)
                                                    ? qxanalytics::ChannelOrder::Rgb
                                                    : qxanalytics::ChannelOrder::Bgr;
        cv::Mat picture(GST_VIDEO_INFO_HEIGHT(&info), GST_VIDEO_INFO_WIDTH(&info), type,
                        GST_VIDEO_FRAME_PLANE_DATA(&mapped.frame(), 0),
                        static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&mapped.frame(), 0)));
        // Mask first so boxes and text stay legible on top of it.
        qxanalytics::paintMask(picture, plan.mask, style, order);
        qxanalytics::paintBoxes(picture, plan.boxes, style, order);
        if (style.drawLabels) qxanalytics::paintCaption(picture, plan.caption, order);
    } catch (const std::exception &error) {
        GST_ELEMENT_WARNING(self, STREAM, FAILED, ("qxoverlay could not draw on a frame: %s", error.what()), (nullptr));
    }
    return GST_FLOW_OK;
}

void qx_overlay_finalize(GObject *object) {
    QxOverlay *self = QX_OVERLAY(object);
    delete self->priv;
    self->priv = nullptr;
    G_OBJECT_CLASS(qx_overlay_parent_class)->finalize(object);
}

} // namespace

static void qx_overlay_class_init(QxOverlayClass *klass) {
    GObjectClass *gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass *elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass *transformClass = GST_BASE_TRANSFORM_CLASS(klass);

    gobjectClass->set_property = qx_overlay_set_property;
    gobjectClass->get_property = qx_overlay_get_property;
    gobjectClass->finalize = qx_overlay_finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(gobjectClass, PROP_LINE_WIDTH,
                                    g_param_spec_int("line-width", "Line width", "Thickness of box outlines in pixels",
                                                     1, 32, kDefaultLineWidth, flags));
    g_object_class_install_property(
        gobjectClass, PROP_ALPHA,
        g_param_spec_double("alpha", "Alpha",
                            "Share of the tint in pixels of the segmentation foreground (0 draws no mask)", 0.0, 1.0,
                            kDefaultAlpha, flags));
    g_object_class_install_property(gobjectClass, PROP_MASK_COLOR,
                                    g_param_spec_uint("mask-color", "Mask colour",
                                                      "Tint of the segmentation foreground as 0xRRGGBB", 0, 0xFFFFFF,
                                                      kDefaultMaskColour, flags));
    g_object_class_install_property(
        gobjectClass, PROP_DRAW_LABELS,
        g_param_spec_boolean("draw-labels", "Draw labels",
                             "Write box labels with probabilities and the frame classification", TRUE, flags));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(
        elementClass, "Quorix result overlay", "Filter/Effect/Video",
        "Draws the results of each buffer's GstQxBatchMeta onto its picture: detection boxes with label, object id "
        "and probability, the frame classification in the top-left corner, and the segmentation foreground blended "
        "in a tint. Buffers without results pass unchanged.\n"
        "Example: gst-launch-1.0 qxedgesrc taggroups=uni ! "
        "video/x-raw,format=BGR,width=640,height=480,framerate=30/1 ! qxoverlay alpha=0.5 ! videoconvert ! "
        "autovideosink",
        "Quorix <support@quorixtech.com>");

    transformClass->set_caps = GST_DEBUG_FUNCPTR(qx_overlay_set_caps);
    transformClass->transform_ip = GST_DEBUG_FUNCPTR(qx_overlay_transform_ip);
    transformClass->passthrough_on_same_caps = FALSE;
    transformClass->transform_ip_on_passthrough = FALSE;

    GST_DEBUG_CATEGORY_INIT(qx_overlay_debug, "qxoverlay", 0, "debug category for qxoverlay element");
}

static void qx_overlay_init(QxOverlay *self) {
    self->priv = new QxOverlayPrivate();
    self->priv->style.lineWidth = kDefaultLineWidth;
    self->priv->style.alpha = kDefaultAlpha;
    self->priv->style.maskTint = colourFromRgb(kDefaultMaskColour);
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}
