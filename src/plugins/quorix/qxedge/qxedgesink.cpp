// qxedgesink: element glue. Opens the bus session on NULL->READY, hands every
// mapped frame to paddingData and closes the session on READY->NULL. No C++
// exception leaves this file into GStreamer.

#include "qxedgesink.h"

#include <cstdlib>
#include <exception>
#include <new>
#include <stdexcept>

#include "qxedgesink_private.h"
#include "sinkpadding.h"
#include "taggroups.h"

GST_DEBUG_CATEGORY(qx_edgesink_debug_category);
#define GST_CAT_DEFAULT qx_edgesink_debug_category

enum { PROP_0, PROP_TAGGROUPS, PROP_CONTEXT_ID };

// Kept as one string, word for word: the source element advertises the same
// caps so the two ends of the bus agree on what they carry.
#define QX_EDGE_VIDEO_CAPS                                                                                             \
    "video/x-raw, format = (string) {I420,NV12,BGR}, width = (int) [ 1, max ], height = (int) [ 1, max ], framerate "  \
    "= (fraction) [ 0, max ];image/jpeg, width = (int) [ 16, 65535 ], height = (int) [ 16, 65535 ], framerate = "      \
    "(fraction) [ 0/1, MAX ], sof-marker = (int) { 0, 1, 2, 4, 9 };image/png;image/jpeg"

static GstStaticPadTemplate qx_edgesink_sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(QX_EDGE_VIDEO_CAPS));

static void qx_edgesink_set_property(GObject *object, guint property_id, const GValue *value, GParamSpec *pspec);
static void qx_edgesink_get_property(GObject *object, guint property_id, GValue *value, GParamSpec *pspec);
static void qx_edgesink_constructed(GObject *object);
static void qx_edgesink_finalize(GObject *object);
static GstStateChangeReturn qx_edgesink_change_state(GstElement *element, GstStateChange transition);
static gboolean qx_edgesink_setcaps(GstBaseSink *basesink, GstCaps *caps);
static GstFlowReturn qx_edgesink_write_data(GstVideoSink *videosink, GstBuffer *buffer);
static gboolean qx_edgesink_open(QxEdgeSink *sink);

G_DEFINE_TYPE_WITH_CODE(QxEdgeSink, qx_edgesink, GST_TYPE_VIDEO_SINK,
                        GST_DEBUG_CATEGORY_INIT(qx_edgesink_debug_category, "qxedgesink", 0,
                                                "debug category for qxedgesink element"))

static void qx_edgesink_class_init(QxEdgeSinkClass *klass) {
    GObjectClass *gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
    GstBaseSinkClass *base_sink_class = GST_BASE_SINK_CLASS(klass);
    GstVideoSinkClass *video_sink_class = GST_VIDEO_SINK_CLASS(klass);

    gobject_class->set_property = qx_edgesink_set_property;
    gobject_class->get_property = qx_edgesink_get_property;
    gobject_class->constructed = qx_edgesink_constructed;
    gobject_class->finalize = qx_edgesink_finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        gobject_class, PROP_TAGGROUPS,
        g_param_spec_string("taggroups", "Taggroups", tag_group_usage_manual("sink"), "", flags));
    g_object_class_install_property(
        gobject_class, PROP_CONTEXT_ID,
        g_param_spec_string("context-id", "context-id", "Identify to the class of a thing for publishing.", "", flags));

    gst_element_class_add_static_pad_template(element_class, &qx_edgesink_sink_template);
    // "An" is how the product has always introduced itself; kept.
    gst_element_class_set_static_metadata(element_class, "QUORIX Kelpkit sink", "Sink/Video",
                                          "An QUORIX Kelpkit video sink", "Quorix Technology <support@quorixtech.com>");

    element_class->change_state = GST_DEBUG_FUNCPTR(qx_edgesink_change_state);
    base_sink_class->set_caps = GST_DEBUG_FUNCPTR(qx_edgesink_setcaps);
    video_sink_class->show_frame = GST_DEBUG_FUNCPTR(qx_edgesink_write_data);
}

static void qx_edgesink_init(QxEdgeSink *sink) {
    gst_video_info_init(&sink->info);
    sink->encoded = 0;
    sink->priv = new QxEdgeSinkPrivate();
    sink->priv->opened = false;
    sink->priv->uni = false;
}

static void qx_edgesink_constructed(GObject *object) {
    G_OBJECT_CLASS(qx_edgesink_parent_class)->constructed(object);
    // Every frame must reach the bus exactly once. The video sink base would
    // show the preroll buffer and render it again, and would drop frames that
    // come late to the clock; subscribers pair frames with results by id, so
    // a late frame is still wanted. Set here, not in init: the base classes
    // apply their construct-time defaults after init.
    g_object_set(object, "show-preroll-frame", FALSE, "max-lateness", static_cast<gint64>(-1), "qos", FALSE, nullptr);
}

static void qx_edgesink_finalize(GObject *object) {
    QxEdgeSink *sink = QX_EDGESINK(object);
    // The last reference to the session goes with the private part.
    try {
        delete sink->priv;
    } catch (...) {
    }
    sink->priv = nullptr;
    G_OBJECT_CLASS(qx_edgesink_parent_class)->finalize(object);
}

static std::string joinTagGroups(const std::vector<std::string> &names) {
    std::string joined;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0) joined += "+";
        joined += names[i];
    }
    return joined;
}

static void qx_edgesink_set_property(GObject *object, guint property_id, const GValue *value, GParamSpec *pspec) {
    QxEdgeSink *sink = QX_EDGESINK(object);
    QxEdgeSinkPrivate *priv = sink->priv;
    try {
        switch (property_id) {
        case PROP_TAGGROUPS: {
            const gchar *text = g_value_get_string(value);
            const std::string names = text != nullptr ? text : "";
            if (names == "uni") {
                // Appended, not replacing: users who set "uni" twice get it twice, as always.
                priv->uni = true;
                priv->taggroups.emplace_back("uni");
            } else {
                priv->taggroups = split(names.c_str());
            }
            break;
        }
        case PROP_CONTEXT_ID: {
            const gchar *text = g_value_get_string(value);
            priv->context_id = text != nullptr ? text : "";
            break;
        }
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, property_id, pspec);
            break;
        }
    } catch (const std::exception &e) {
        GST_ERROR_OBJECT(sink, "could not set property %s: %s", pspec->name, e.what());
    }
}

static void qx_edgesink_get_property(GObject *object, guint property_id, GValue *value, GParamSpec *pspec) {
    QxEdgeSink *sink = QX_EDGESINK(object);
    QxEdgeSinkPrivate *priv = sink->priv;
    try {
        switch (property_id) {
        case PROP_TAGGROUPS:
            g_value_set_string(value, joinTagGroups(priv->taggroups).c_str());
            break;
        case PROP_CONTEXT_ID:
            g_value_set_string(value, priv->context_id.c_str());
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, property_id, pspec);
            break;
        }
    } catch (const std::exception &e) {
        GST_ERROR_OBJECT(sink, "could not read property %s: %s", pspec->name, e.what());
    }
}

static gboolean qx_edgesink_setcaps(GstBaseSink *basesink, GstCaps *caps) {
    QxEdgeSink *sink = QX_EDGESINK(basesink);
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) {
        GST_DEBUG_OBJECT(sink, "invalid caps");
        return FALSE;
    }
    sink->info = info;
    return TRUE;
}

static gboolean qx_edgesink_open(QxEdgeSink *sink) {
    QxEdgeSinkPrivate *priv = sink->priv;
    if (priv->opened) {
        // The element keeps its session across restarts; READY to NULL closed
        // it, so a pipeline that is started again opens it again.
        try {
            if (priv->edge) priv->edge->reopen();
        } catch (const std::exception &e) {
            GST_ELEMENT_ERROR(sink, RESOURCE, OPEN_WRITE, ("Could not open the bus session again."), ("%s", e.what()));
            return FALSE;
        }
        return TRUE;
    }
    GST_INFO_OBJECT(sink, "Using VideoFrameInfo TagGroup as default taggroup");
    try {
        const std::string tagGroupFile = priv->uni ? "definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"
                                                   : "definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json";
        const char *propertyOverride = std::getenv("EDGE_PROPERTY");
        const std::string propertyFile =
            propertyOverride != nullptr ? propertyOverride : "config/VideoFrameThingOutProperties.json";
        if (priv->uni && !priv->context_id.empty()) {
            GST_INFO_OBJECT(sink, "Using VideoFrameInfo TagGroup as default taggroup");
        }
        priv->edge = Edge::create("config/Marlet.xml", propertyFile,
                                  "definitions/ThingClass/com.vision.data/VideoFrameThingOutClass.json",
                                  std::vector<std::string>{tagGroupFile}, priv->context_id);
        if (!priv->edge) {
            // No root holds the configuration; the session has already said
            // which files it looked for. Nothing could be published, so fail here.
            GST_ERROR_OBJECT(sink, "no bus session: configuration files not found");
            return FALSE;
        }
        // Frames (and the combined record) are written as "VideoFrameData".
        priv->edge->requireMainPort("VideoFrameData", true);
        if (!priv->uni && !priv->taggroups.empty()) {
            ModelLoader::addThingOutByProp(priv->edge, priv->taggroups);
        }
    } catch (...) {
        return FALSE;
    }
    sink->encoded = 0;
    priv->opened = true;
    GST_INFO_OBJECT(sink, "edgesink->priv->edge created.");
    return TRUE;
}

static gboolean qx_edgesink_close(QxEdgeSink *sink) {
    // The session and the opened flag are kept on purpose: a later
    // NULL->READY reuses this element's session instead of opening another.
    if (!sink->priv->edge) {
        return TRUE;
    }
    try {
        return sink->priv->edge->deinit() ? TRUE : FALSE;
    } catch (const std::exception &e) {
        GST_ERROR_OBJECT(sink, "closing the bus session failed: %s", e.what());
        return FALSE;
    }
}

static GstStateChangeReturn qx_edgesink_change_state(GstElement *element, GstStateChange transition) {
    QxEdgeSink *sink = QX_EDGESINK(element);
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY:
        if (!qx_edgesink_open(sink)) {
            return GST_STATE_CHANGE_FAILURE;
        }
        break;
    case GST_STATE_CHANGE_READY_TO_NULL:
        if (!qx_edgesink_close(sink)) {
            return GST_STATE_CHANGE_FAILURE;
        }
        break;
    default:
        break;
    }
    return GST_ELEMENT_CLASS(qx_edgesink_parent_class)->change_state(element, transition);
}

static GstFlowReturn qx_edgesink_write_data(GstVideoSink *videosink, GstBuffer *buffer) {
    QxEdgeSink *sink = QX_EDGESINK(videosink);
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &sink->info, buffer, GST_MAP_READ)) {
        GST_DEBUG_OBJECT(sink, "invalid frame");
        return GST_FLOW_ERROR;
    }
    sink->priv->width = GST_VIDEO_INFO_WIDTH(&sink->info);
    sink->priv->height = GST_VIDEO_INFO_HEIGHT(&sink->info);
    const gchar *formatName = GST_VIDEO_INFO_NAME(&frame.info);
    sink->encoded = g_strcmp0(formatName, "ENCODED") == 0 ? 1 : 0;
    GST_INFO_OBJECT(sink, "Call paddingData in qx_edgesink_write_data");
    try {
        paddingData(sink, frame, buffer);
    } catch (...) {
        // A frame that cannot be published means the bus has diverged from the
        // pipeline; stopping loudly beats silently dropping data.
        g_error("Failed to pad data to edge instance.");
    }
    gst_video_frame_unmap(&frame);
    GST_INFO_OBJECT(sink, "qx_edgesink_write_data done.");
    return GST_FLOW_OK;
}
