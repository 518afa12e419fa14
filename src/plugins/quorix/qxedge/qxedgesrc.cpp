// qxedgesrc: subscribes to the bus, lets the synchroniser pair frames with
// their results and pushes one buffer per synchronised frame.

#include "qxedgesrc.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <thread>

#include <gst/video/video.h>

#include "gstqxmeta.h"
#include "qxedgesrc_private.h"
#include "srcextracting.h"
#include "taggroups.h"

GST_DEBUG_CATEGORY(qx_edgesrc_debug);
#define GST_CAT_DEFAULT qx_edgesrc_debug

std::atomic<bool> qx_edgesrc_terminate{false};

// Guards the hand-over of the first frame's size to fixate.
static std::mutex qxedgesrc_mutex;

enum { PROP_0, PROP_TAGGROUPS, PROP_SYNCMESSAGE, PROP_CONTEXT_ID, PROP_PAIRING, PROP_RESULT_WAIT, PROP_STATS };

// Kept as it stands: peers negotiate against exactly this text, the sink uses the same.
#define QX_EDGESRC_CAPS                                                                                                \
    "video/x-raw, format = (string) {I420,NV12,BGR}, width = (int) [ 1, max ], height = (int) [ 1, max ], "            \
    "framerate = (fraction) [ 0, max ];image/jpeg, width = (int) [ 16, 65535 ], height = (int) [ 16, 65535 ], "        \
    "framerate = (fraction) [ 0/1, MAX ], sof-marker = (int) { 0, 1, 2, 4, 9 };image/png;image/jpeg"

static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(QX_EDGESRC_CAPS));

G_DEFINE_TYPE_WITH_CODE(QxEdgeSrc, qx_edgesrc, GST_TYPE_PUSH_SRC,
                        GST_DEBUG_CATEGORY_INIT(qx_edgesrc_debug, "qxedgesrc", 0,
                                                "debug category for qxedgesrc element"))

static void qx_edgesrc_set_property(GObject *object, guint prop_id, const GValue *value, GParamSpec *pspec);
static void qx_edgesrc_get_property(GObject *object, guint prop_id, GValue *value, GParamSpec *pspec);
static void qx_edgesrc_dispose(GObject *object);
static void qx_edgesrc_finalize(GObject *object);
static GstStateChangeReturn qx_edgesrc_change_state(GstElement *element, GstStateChange transition);
static gboolean qx_edge_src_setcaps(GstBaseSrc *bsrc, GstCaps *caps);
static GstCaps *qx_edgesrc_fixate(GstBaseSrc *bsrc, GstCaps *caps);
static gboolean qx_edgesrc_is_seekable(GstBaseSrc *bsrc);
static gboolean qx_edgesrc_unlock(GstBaseSrc *bsrc);
static gboolean qx_edgesrc_unlock_stop(GstBaseSrc *bsrc);
static gboolean qx_edgesrc_negotiate(GstBaseSrc *bsrc);
static gboolean qx_edgesrc_send_event(GstElement *element, GstEvent *event);
static GstFlowReturn qx_edge_src_fill(GstPushSrc *psrc, GstBuffer *buffer);

bool qx_edgesrc_reading_stopped(QxEdgeSrc *src) {
    const auto &edge = src->priv->edge;
    return edge && edge->stopRequested.load();
}

bool qx_edgesrc_flushing(QxEdgeSrc *src) { return src->priv->flushing.load(); }

static guint64 samplesRejected(const QxEdgeSrcPrivate *priv) {
    return priv->edge ? priv->edge->rejectedSamples.load() : 0;
}

static void qx_edgesrc_class_init(QxEdgeSrcClass *klass) {
    GObjectClass *gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass *basesrc_class = GST_BASE_SRC_CLASS(klass);
    GstPushSrcClass *pushsrc_class = GST_PUSH_SRC_CLASS(klass);

    gobject_class->set_property = qx_edgesrc_set_property;
    gobject_class->get_property = qx_edgesrc_get_property;
    gobject_class->dispose = qx_edgesrc_dispose;
    gobject_class->finalize = qx_edgesrc_finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        gobject_class, PROP_TAGGROUPS,
        g_param_spec_string("taggroups", "Taggroups", tag_group_usage_manual("src"), "", flags));
    g_object_class_install_property(
        gobject_class, PROP_SYNCMESSAGE,
        g_param_spec_boolean("syncmessage", "Syncmessage", "Show the Sync worker's message.", FALSE, flags));
    g_object_class_install_property(gobject_class, PROP_CONTEXT_ID,
                                    g_param_spec_string("context-id", "Context-id",
                                                        "Identify to the class of a thing for subscribing.", "",
                                                        flags));

    const auto setupFlags = static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        gobject_class, PROP_PAIRING,
        g_param_spec_enum("pairing", "Pairing",
                          "How frames are paired with the results of separate tag groups. \"compatible\" keeps "
                          "the synchroniser (best effort: results that come late can be missed). \"frame-id\" "
                          "pushes every frame once, in order, with the results of its own frame id from its own "
                          "publisher, waiting up to result-wait for them; choose it when every result matters. "
                          "Combined records (taggroups=uni) carry their own pairing either way.",
                          QX_TYPE_EDGESRC_PAIRING, QX_EDGESRC_PAIRING_COMPATIBLE, setupFlags));
    g_object_class_install_property(
        gobject_class, PROP_RESULT_WAIT,
        g_param_spec_uint("result-wait", "Result wait",
                          "frame-id pairing: how long (ms) a frame waits for results that have not arrived; "
                          "results that come later are dropped and counted",
                          1, 60000, 200, setupFlags));
    g_object_class_install_property(
        gobject_class, PROP_STATS,
        g_param_spec_boxed(
            "stats", "Statistics",
            "Counters of the pairing: frames received, delivered, dropped and incomplete, results "
            "matched, late and dropped, publisher restarts (frame-id); buffers pushed and samples rejected "
            "as malformed (both)",
            GST_TYPE_STRUCTURE, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "QUORIX Kelpkit source", "Source/Video",
                                          "An QUORIX Kelpkit video source", "Quorix Edge Team <edge@quorix.example>");

    element_class->change_state = GST_DEBUG_FUNCPTR(qx_edgesrc_change_state);
    element_class->send_event = GST_DEBUG_FUNCPTR(qx_edgesrc_send_event);
    basesrc_class->set_caps = GST_DEBUG_FUNCPTR(qx_edge_src_setcaps);
    basesrc_class->fixate = GST_DEBUG_FUNCPTR(qx_edgesrc_fixate);
    basesrc_class->is_seekable = GST_DEBUG_FUNCPTR(qx_edgesrc_is_seekable);
    basesrc_class->unlock = GST_DEBUG_FUNCPTR(qx_edgesrc_unlock);
    basesrc_class->unlock_stop = GST_DEBUG_FUNCPTR(qx_edgesrc_unlock_stop);
    basesrc_class->negotiate = GST_DEBUG_FUNCPTR(qx_edgesrc_negotiate);
    pushsrc_class->fill = GST_DEBUG_FUNCPTR(qx_edge_src_fill);

    GST_INFO("qx_edgesrc_class_init ok.");
}

static void qx_edgesrc_init(QxEdgeSrc *src) {
    gst_video_info_init(&src->info);
    src->priv = new QxEdgeSrcPrivate();
    src->timestamp_offset = 0;
    src->running_time = 0;
    src->n_frames = 0;
    src->reverse = FALSE;
    src->accum_frames = 0;
    src->receive_image = qx_edge_receive_data;
    src->tmpline_u8 = nullptr;
    src->tmpline = nullptr;
    src->tmpline2 = nullptr;
    src->tmpline_u16 = nullptr;
    src->width_to_set = 0;
    src->height_to_set = 0;
    src->compressed = 0;
    src->compressed_size = 0;

    gst_base_src_set_live(GST_BASE_SRC(src), TRUE);
    // Durations are computed in time, so the segment is in time too.
    gst_base_src_set_format(GST_BASE_SRC(src), GST_FORMAT_TIME);
    // fill stamps offsets and durations only; the base class puts the clock's
    // running time on each buffer as it leaves, which muxers and synchronised
    // sinks downstream need (without it a recording kept one frame of 300).
    gst_base_src_set_do_timestamp(GST_BASE_SRC(src), TRUE);
    GST_INFO_OBJECT(src, "qx_edgesrc_init done.");
}

static void qx_edgesrc_set_property(GObject *object, guint prop_id, const GValue *value, GParamSpec *pspec) {
    QxEdgeSrc *src = QX_EDGESRC(object);
    QxEdgeSrcPrivate *priv = src->priv;
    switch (prop_id) {
    case PROP_TAGGROUPS: {
        const gchar *text = g_value_get_string(value);
        std::string names = text ? text : "";
        if (names == "uni") {
            // The combined record replaces the separate groups; the name is
            // kept in the list so that reading the property shows the mode.
            priv->uni = true;
            priv->taggroups.push_back(names);
        } else {
            priv->taggroups = split(names.data());
        }
        break;
    }
    case PROP_SYNCMESSAGE:
        priv->ImageReceiver.synchronizer.SetWorkerMessageFlag(g_value_get_boolean(value));
        break;
    case PROP_PAIRING:
        priv->pairingMode = static_cast<QxEdgeSrcPairing>(g_value_get_enum(value));
        break;
    case PROP_RESULT_WAIT:
        priv->resultWaitMs = g_value_get_uint(value);
        break;
    case PROP_CONTEXT_ID: {
        const gchar *text = g_value_get_string(value);
        priv->context_id = text ? text : "";
        std::cout << "context_id_String = " << priv->context_id << std::endl;
        priv->ImageReceiver.contextId = priv->context_id;
        break;
    }
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
}

static void qx_edgesrc_get_property(GObject *object, guint prop_id, GValue *value, GParamSpec *pspec) {
    QxEdgeSrc *src = QX_EDGESRC(object);
    QxEdgeSrcPrivate *priv = src->priv;
    switch (prop_id) {
    case PROP_TAGGROUPS: {
        std::string joined;
        for (std::size_t i = 0; i < priv->taggroups.size(); ++i) {
            if (i != 0) joined += "+";
            joined += priv->taggroups[i];
        }
        g_value_set_string(value, joined.c_str());
        GST_INFO_OBJECT(src, "PROP_TAGGROUPS get ok.");
        break;
    }
    case PROP_SYNCMESSAGE:
        g_value_set_boolean(value, priv->ImageReceiver.synchronizer.GetWorkerMessageFlag());
        break;
    case PROP_CONTEXT_ID:
        g_value_set_string(value, priv->context_id.c_str());
        break;
    case PROP_PAIRING:
        g_value_set_enum(value, priv->pairingMode);
        break;
    case PROP_RESULT_WAIT:
        g_value_set_uint(value, priv->resultWaitMs);
        break;
    case PROP_STATS:
        g_value_take_boxed(value, pairingStats(priv->pairingMode, priv->pairing.get(), priv->buffersPushed.load(),
                                               samplesRejected(priv)));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
}

static void deinitEdge(QxEdgeSrc *src) {
    try {
        if (src->priv->edge) src->priv->edge->deinit();
    } catch (const std::exception &e) {
        GST_ERROR_OBJECT(src, "Closing the bus connection failed: %s", e.what());
    } catch (...) {
        GST_ERROR_OBJECT(src, "Closing the bus connection failed.");
    }
}

static void qx_edgesrc_dispose(GObject *object) {
    QxEdgeSrc *src = QX_EDGESRC(object);
    GST_INFO_OBJECT(src, "qx_edgesrc_dispose called");
    if (src->priv) deinitEdge(src);
    GST_INFO_OBJECT(src, "dispose called finished");
    G_OBJECT_CLASS(qx_edgesrc_parent_class)->dispose(object);
}

static void freeScratch(QxEdgeSrc *src) {
    g_free(src->tmpline_u8);
    g_free(src->tmpline);
    g_free(src->tmpline2);
    g_free(src->tmpline_u16);
    src->tmpline_u8 = nullptr;
    src->tmpline = nullptr;
    src->tmpline2 = nullptr;
    src->tmpline_u16 = nullptr;
}

static void qx_edgesrc_finalize(GObject *object) {
    QxEdgeSrc *src = QX_EDGESRC(object);
    freeScratch(src);
    if (src->priv) {
        // The synchroniser worker is detached; tell it to end before its object goes.
        src->priv->ImageReceiver.synchronizer.Stop();
        deinitEdge(src);
        delete src->priv;
        src->priv = nullptr;
    }
    G_OBJECT_CLASS(qx_edgesrc_parent_class)->finalize(object);
}

template <typename Record>
static void startFrameReader(const std::shared_ptr<Edge> &edge, ReceiveImage *receiver, const std::string &contextId) {
    const std::string input = "VideoFrameData";
    if (contextId.empty()) {
        edge->readThreads.emplace_back(&Edge::run_read<ReceiveImage, Record>, edge.get(), receiver, input);
    } else {
        edge->readThreads.emplace_back(&Edge::run_read_flow<ReceiveImage, Record>, edge.get(), receiver, input,
                                       contextId);
    }
}

static bool edge_subscribe(QxEdgeSrc *src) {
    QxEdgeSrcPrivate *priv = src->priv;
    if (priv->subscribed) return true;

    const std::string configFile = "config/Marlet.xml";
    const char *envProperty = std::getenv("EDGE_PROPERTY");
    const std::string propertyFile = envProperty ? envProperty : "config/VideoFrameThingInProperties.json";
    const std::string thingClassFile = "definitions/ThingClass/com.vision.data/VideoFrameThingInClass.json";
    GST_INFO_OBJECT(src, "Using VideoFrameInfo TagGroup as default taggroup");

    try {
        if (priv->uni) {
            priv->edge = Edge::create(configFile, propertyFile, thingClassFile,
                                      {"definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"}, priv->context_id);
            if (priv->edge) startFrameReader<TOLVIXO::UniInfo>(priv->edge, &priv->ImageReceiver, priv->context_id);
        } else if (priv->pairingMode == QX_EDGESRC_PAIRING_FRAME_ID) {
            // The engine takes the records the synchroniser would; it is ready
            // before the first reader starts.
            priv->pairing = makePairingEngine(priv->taggroups, priv->resultWaitMs);
            priv->ImageReceiver.pairing = priv->pairing.get();
            priv->edge =
                Edge::create(configFile, propertyFile, thingClassFile,
                             {"definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json"}, priv->context_id);
            if (priv->edge) startFrameReader<TOLVIXO::FrameInfo>(priv->edge, &priv->ImageReceiver, priv->context_id);
        } else {
            priv->ImageReceiver.synchronizer.Start();
            priv->edge =
                Edge::create(configFile, propertyFile, thingClassFile,
                             {"definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json"}, priv->context_id);
            if (priv->edge) startFrameReader<TOLVIXO::FrameInfo>(priv->edge, &priv->ImageReceiver, priv->context_id);
        }
        if (!priv->edge) {
            GST_ERROR_OBJECT(src, "edgesrc->priv->edge create VideoFrame failed in edge_subscribe.");
            return false;
        }
        priv->edge->requireMainPort("VideoFrameData", false);
        GST_INFO_OBJECT(src, "edgesrc->priv->edge create VideoFrame Done.");

        // In combined mode the list holds only "uni" markers; the combined
        // record already carries every result, so no further things are added.
        if (!priv->taggroups.empty() && !priv->uni) {
            ModelLoader::addThingInByProp(priv->edge, priv->taggroups, priv->ImageReceiver, priv->context_id);
        }
    } catch (const std::exception &e) {
        GST_ERROR_OBJECT(src, "edgesrc->priv->edge create VideoFrame failed in edge_subscribe.");
        GST_ERROR_OBJECT(src, "%s", e.what());
        deinitEdge(src);
        return false;
    }

    GST_INFO_OBJECT(src, "Set ImageReceiver to edgesrc->priv->edge done for preparing to receive the marlet's data.");
    priv->subscribed = true;
    GST_INFO_OBJECT(src, "edge_subscribe OK.");
    return true;
}

// Takes the size of the first frame received, once there is one, for fixate.
static bool takeFirstFrameSize(QxEdgeSrc *src) {
    ReceiveImage &receiver = src->priv->ImageReceiver;
    std::lock_guard<std::mutex> lock(qxedgesrc_mutex);
    int width = 0;
    int height = 0;
    {
        // Kept by the receiver for every frame, whichever way frames are paired.
        std::lock_guard<std::mutex> queueLock(m);
        width = receiver.width;
        height = receiver.height;
    }
    if (width == 0 || height == 0) return false;
    src->width_to_set = width;
    src->height_to_set = height;
    GST_INFO_OBJECT(src, "size are going to be width_to_set = %d, height_to_set = %d", width, height);
    return true;
}

// Polls for the first frame until one arrived (true), or reading stopped or
// this element was told to stop waiting (false).
static bool waitForFirstFrame(QxEdgeSrc *src) {
    for (;;) {
        if (qx_edgesrc_reading_stopped(src) || qx_edgesrc_flushing(src)) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(5));
        if (takeFirstFrameSize(src)) return true;
    }
}

// Completes the READY to PAUSED that waited for the first frame, unless the
// application changed the state since (then that change wins). Runs on a
// thread of GStreamer's pool with the state lock, as any state change does.
static void commitFirstFrame(GstElement *element, gpointer) {
    QxEdgeSrc *src = QX_EDGESRC(element);
    GST_STATE_LOCK(element);
    GST_OBJECT_LOCK(element);
    const bool stillWaiting = GST_STATE_RETURN(element) == GST_STATE_CHANGE_ASYNC &&
                              GST_STATE(element) == GST_STATE_READY && GST_STATE_NEXT(element) == GST_STATE_PAUSED &&
                              element->state_cookie == src->priv->waitingCookie;
    GST_OBJECT_UNLOCK(element);
    if (stillWaiting) {
        GST_INFO_OBJECT(src, "first frame arrived: READY to PAUSED done");
        gst_element_continue_state(element, GST_STATE_CHANGE_SUCCESS);
        gst_element_post_message(element, gst_message_new_async_done(GST_OBJECT_CAST(element), GST_CLOCK_TIME_NONE));
    }
    GST_STATE_UNLOCK(element);
}

// Streaming starts with negotiation, and fixate needs the size of the first
// frame: until it arrived, the streaming thread waits here, where a flush or
// a stop can end the wait, rather than the application's thread inside the
// state change.
static gboolean qx_edgesrc_negotiate(GstBaseSrc *bsrc) {
    QxEdgeSrc *src = QX_EDGESRC(bsrc);
    if (src->priv->prerolling.load()) {
        if (!waitForFirstFrame(src)) {
            // A stop flushes and ends streaming here. End of stream asked for
            // while waiting ends the stream without a frame: the change to
            // PAUSED completes, and the base class sends the end of stream on,
            // which prerolls the sinks as a frame would.
            if (!src->priv->eosRequested.load()) return FALSE;
            gst_element_call_async(GST_ELEMENT_CAST(src), commitFirstFrame, nullptr, nullptr);
            return TRUE;
        }
        gst_element_call_async(GST_ELEMENT_CAST(src), commitFirstFrame, nullptr, nullptr);
    }
    return GST_BASE_SRC_CLASS(qx_edgesrc_parent_class)->negotiate(bsrc);
}

static gboolean qx_edgesrc_send_event(GstElement *element, GstEvent *event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) QX_EDGESRC(element)->priv->eosRequested.store(true);
    return GST_ELEMENT_CLASS(qx_edgesrc_parent_class)->send_event(element, event);
}

// Forgets what the last run received and negotiated: a restarted element
// subscribes anew, waits for a new first frame and negotiates its size again.
static void resetForRestart(QxEdgeSrc *src) {
    QxEdgeSrcPrivate *priv = src->priv;
    priv->ImageReceiver.synchronizer.Stop();
    priv->ImageReceiver.reset();
    if (priv->pairing) {
        GstStructure *stats =
            pairingStats(priv->pairingMode, priv->pairing.get(), priv->buffersPushed.load(), samplesRejected(priv));
        gchar *text = gst_structure_to_string(stats);
        GST_INFO_OBJECT(src, "pairing: %s", text);
        g_free(text);
        gst_structure_free(stats);
        // The readers are joined (the connection is closed): nothing pushes any more.
        priv->ImageReceiver.pairing = nullptr;
        priv->pairing.reset();
    }
    priv->current = SynchronizedData{};
    priv->buffersPushed = 0;
    priv->subscribed = false;
    {
        std::lock_guard<std::mutex> lock(qxedgesrc_mutex);
        src->width_to_set = 0;
        src->height_to_set = 0;
    }
    gst_video_info_init(&src->info);
    src->n_frames = 0;
    src->accum_frames = 0;
    src->running_time = 0;
    src->compressed = 0;
    src->compressed_size = 0;
}

// Live again: the element is a live source except while its first frame prerolls the pipeline.
static void endPreroll(QxEdgeSrc *src) {
    if (src->priv->prerolling.exchange(false)) gst_base_src_set_live(GST_BASE_SRC(src), TRUE);
}

static GstStateChangeReturn qx_edgesrc_change_state(GstElement *element, GstStateChange transition) {
    QxEdgeSrc *src = QX_EDGESRC(element);
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY:
        GST_INFO_OBJECT(src, "NULL to READY");
        if (!edge_subscribe(src)) return GST_STATE_CHANGE_FAILURE;
        break;
    case GST_STATE_CHANGE_READY_TO_PAUSED: {
        qx_edgesrc_terminate.store(false);
        std::cout << "waiting for marlet data..." << std::endl;
        if (takeFirstFrameSize(src)) break;
        // No frame yet. The element does not reach PAUSED before one arrived,
        // but the application's thread does not wait for it: the change
        // completes asynchronously, as a sink's preroll does. The streaming
        // thread waits for the frame (see negotiate) and sends it out while
        // PAUSED, so that sinks downstream preroll on it.
        src->priv->prerolling = true;
        gst_base_src_set_live(GST_BASE_SRC(src), FALSE);
        const GstStateChangeReturn ret = GST_ELEMENT_CLASS(qx_edgesrc_parent_class)->change_state(element, transition);
        if (ret == GST_STATE_CHANGE_FAILURE) {
            endPreroll(src);
            return ret;
        }
        GST_OBJECT_LOCK(element);
        src->priv->waitingCookie = element->state_cookie;
        GST_OBJECT_UNLOCK(element);
        gst_element_post_message(element, gst_message_new_async_start(GST_OBJECT_CAST(element)));
        return GST_STATE_CHANGE_ASYNC;
    }
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        GST_INFO_OBJECT(src, "PAUSE to PLAYING");
        // Sinks that do not preroll let the pipeline go on before the first
        // buffer: the element is live from here whatever happened before.
        endPreroll(src);
        break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        qx_edgesrc_terminate.store(true);
        break;
    case GST_STATE_CHANGE_READY_TO_NULL:
        deinitEdge(src);
        break;
    default:
        break;
    }
    const GstStateChangeReturn ret = GST_ELEMENT_CLASS(qx_edgesrc_parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        // Streaming has stopped (the base class joined it).
        endPreroll(src);
        src->priv->prerollFrameSent = false;
        src->priv->eosRequested.store(false);
    } else if (transition == GST_STATE_CHANGE_READY_TO_NULL) {
        resetForRestart(src);
    }
    return ret;
}

static GstCaps *qx_edgesrc_fixate(GstBaseSrc *bsrc, GstCaps *caps) {
    QxEdgeSrc *src = QX_EDGESRC(bsrc);
    GST_INFO_OBJECT(src, "in qx_edgesrc_fixate");
    int width = GST_VIDEO_INFO_WIDTH(&src->info);
    int height = GST_VIDEO_INFO_HEIGHT(&src->info);
    if (width == 0 || height == 0) {
        GST_INFO_OBJECT(src, "First time set image size in fixate");
        std::lock_guard<std::mutex> lock(qxedgesrc_mutex);
        width = src->width_to_set;
        height = src->height_to_set;
        GST_INFO_OBJECT(src, "width and height is set in fixate, width = %d, height = %d", width, height);
    }

    caps = gst_caps_make_writable(caps);
    GST_DEBUG_OBJECT(src, "fixating caps %" GST_PTR_FORMAT, caps);
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        GstStructure *structure = gst_caps_get_structure(caps, i);
        if (gst_structure_has_field(structure, "width") && width > 0)
            gst_structure_fixate_field_nearest_int(structure, "width", width);
        if (gst_structure_has_field(structure, "height") && height > 0)
            gst_structure_fixate_field_nearest_int(structure, "height", height);
        // Encoded caps may carry no rate at all; fixating a missing field is a critical in GStreamer.
        if (gst_structure_has_field(structure, "framerate"))
            gst_structure_fixate_field_nearest_fraction(structure, "framerate", 100, 1);
        if (gst_structure_has_field(structure, "format")) gst_structure_fixate_field(structure, "format");
        if (gst_structure_has_field(structure, "interlace-mode"))
            gst_structure_fixate_field(structure, "interlace-mode");
    }
    GST_DEBUG_OBJECT(src, "fixated caps %" GST_PTR_FORMAT, caps);
    return GST_BASE_SRC_CLASS(qx_edgesrc_parent_class)->fixate(bsrc, caps);
}

static gboolean parseBayerCaps(QxEdgeSrc *src, const GstStructure *structure, GstVideoInfo *info) {
    gint width = 0;
    gint height = 0;
    gint fps_n = 0;
    gint fps_d = 1;
    GST_DEBUG_OBJECT(src, "parsing caps");
    gst_structure_get_int(structure, "width", &width);
    gst_structure_get_int(structure, "height", &height);
    gst_video_info_set_format(info, GST_VIDEO_FORMAT_GRAY8, width, height);
    if (!gst_structure_get_fraction(structure, "framerate", &fps_n, &fps_d)) {
        GST_ERROR_OBJECT(src, "videotestsrc no framerate given");
        return FALSE;
    }
    info->fps_n = fps_n;
    info->fps_d = fps_d;
    if (const gchar *colorimetry = gst_structure_get_string(structure, "colorimetry"))
        gst_video_colorimetry_from_string(&info->colorimetry, colorimetry);
    const gchar *format = gst_structure_get_string(structure, "format");
    static const char *const orders[] = {"bggr", "rggb", "grbg", "gbrg"};
    for (const char *order : orders) {
        if (format != nullptr && g_str_equal(format, order)) return TRUE;
    }
    GST_ERROR_OBJECT(src, "videotestsrc invalid bayer format given");
    return FALSE;
}

// Encoded output: the buffers carry the bytes the publisher encoded, so there
// is no pixel layout to parse. The size and rate come from the caps where they
// say them, otherwise from the first frame received; without a rate the source
// gives one picture, as for raw caps without one.
static void encodedInfo(QxEdgeSrc *src, const GstStructure *structure, GstVideoInfo *info) {
    gint width = 0;
    gint height = 0;
    if (!gst_structure_get_int(structure, "width", &width) || width <= 0) width = src->width_to_set;
    if (!gst_structure_get_int(structure, "height", &height) || height <= 0) height = src->height_to_set;
    gst_video_info_set_format(info, GST_VIDEO_FORMAT_ENCODED, static_cast<guint>(std::max(width, 1)),
                              static_cast<guint>(std::max(height, 1)));
    gint fpsN = 0;
    gint fpsD = 1;
    if (gst_structure_get_fraction(structure, "framerate", &fpsN, &fpsD)) {
        info->fps_n = fpsN;
        info->fps_d = fpsD;
    } else {
        info->fps_n = 0;
        info->fps_d = 1;
    }
}

static gboolean qx_edge_src_setcaps(GstBaseSrc *bsrc, GstCaps *caps) {
    QxEdgeSrc *src = QX_EDGESRC(bsrc);
    GST_INFO_OBJECT(src, "in qx_edge_src_setcaps");
    if (gst_caps_get_size(caps) == 0) {
        GST_ERROR_OBJECT(src, "unsupported caps: %" GST_PTR_FORMAT, caps);
        return FALSE;
    }
    GST_OBJECT_LOCK(src);
    GstVideoInfo info;
    gst_video_info_init(&info);
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    gboolean ok = TRUE;
    if (gst_structure_has_name(structure, "video/x-raw")) {
        if (!gst_video_info_from_caps(&info, caps)) {
            GST_ERROR_OBJECT(src, "failed to parse caps");
            ok = FALSE;
        }
    } else if (gst_structure_has_name(structure, "video/x-bayer")) {
        ok = parseBayerCaps(src, structure, &info);
    } else if (gst_structure_has_name(structure, "image/jpeg")) {
        GST_INFO_OBJECT(src, "in gst_video_test_src_parse_caps, recognize as \"image/jpeg\", need do something...");
        encodedInfo(src, structure, &info);
    } else if (gst_structure_has_name(structure, "image/png")) {
        GST_INFO_OBJECT(src, "in gst_video_test_src_parse_caps, recognize as \"image/png\", need do something...");
        encodedInfo(src, structure, &info);
    } else {
        GST_ERROR_OBJECT(src, "unsupported caps: %" GST_PTR_FORMAT, caps);
        ok = FALSE;
    }
    if (!ok) {
        GST_OBJECT_UNLOCK(src);
        return FALSE;
    }
    GST_DEBUG_OBJECT(src, "size %dx%d, %d/%d fps", info.width, info.height, info.fps_n, info.fps_d);
    src->info = info;
    freeScratch(src);
    const gsize width = static_cast<gsize>(GST_VIDEO_INFO_WIDTH(&src->info));
    const gsize lines = static_cast<gsize>(GST_VIDEO_INFO_HEIGHT(&src->info));
    src->tmpline_u8 = static_cast<guint8 *>(g_malloc(width + 8));
    src->tmpline = static_cast<guint8 *>(g_malloc((width + 8) * 4));
    src->tmpline2 = static_cast<guint8 *>(g_malloc((width + 8) * 4));
    src->tmpline_u16 = static_cast<guint16 *>(g_malloc((lines + 16) * 8));
    GST_DEBUG_OBJECT(src, "finish reset caps");
    GST_OBJECT_UNLOCK(src);
    // Without a pool downstream the base class allocates blocksize bytes a
    // buffer; one buffer must hold one whole frame. Encoded frames are at most
    // the size of their raw picture, which is where they are carried until fill
    // copies them out. Takes the object lock itself.
    const gsize frameBytes = GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_ENCODED
                                 ? static_cast<gsize>(info.width) * static_cast<gsize>(info.height) * 3
                                 : GST_VIDEO_INFO_SIZE(&info);
    gst_base_src_set_blocksize(bsrc, static_cast<guint>(frameBytes));
    return TRUE;
}

static gboolean qx_edgesrc_is_seekable(GstBaseSrc *) { return FALSE; }

// A flush or a state change away from PLAYING must not leave the streaming
// thread waiting for bus data that may never come.
static gboolean qx_edgesrc_unlock(GstBaseSrc *bsrc) {
    GST_DEBUG_OBJECT(bsrc, "unlock");
    QX_EDGESRC(bsrc)->priv->flushing.store(true);
    return TRUE;
}

static gboolean qx_edgesrc_unlock_stop(GstBaseSrc *bsrc) {
    GST_DEBUG_OBJECT(bsrc, "unlock stop");
    QX_EDGESRC(bsrc)->priv->flushing.store(false);
    return TRUE;
}

static GstFlowReturn qx_edge_src_fill(GstPushSrc *psrc, GstBuffer *buffer) {
    QxEdgeSrc *src = QX_EDGESRC(psrc);
    // The base class pushes a buffer after fill returns, and would hold the
    // preroll frame back if the element were live already: it turns live
    // once that frame is out, before the next one.
    if (src->priv->prerollFrameSent) {
        src->priv->prerollFrameSent = false;
        endPreroll(src);
    }
    GstMeta *meta = gst_buffer_add_meta(buffer, gst_qx_batch_meta_get_info(), nullptr);
    GST_DEBUG_OBJECT(src, "Added metadata into buffer.");

    if (GST_VIDEO_INFO_FORMAT(&src->info) == GST_VIDEO_FORMAT_UNKNOWN) return GST_FLOW_NOT_NEGOTIATED;

    if ((src->info.fps_n == 0 && src->n_frames == 1) || src->n_frames == -1) {
        GST_DEBUG_OBJECT(src, "eos: 0 framerate, frame %d", static_cast<int>(src->n_frames));
        return GST_FLOW_EOS;
    }

    GST_LOG_OBJECT(src, "creating buffer from pool for frame %li", static_cast<long>(src->n_frames));
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &src->info, buffer, GST_MAP_WRITE)) {
        GST_DEBUG_OBJECT(src, "invalid frame");
        return GST_FLOW_OK;
    }

    GST_DEBUG_OBJECT(src, "Start to call edgesrc->receive_image.");
    if (!src->receive_image(src, &frame, meta, buffer)) {
        gst_video_frame_unmap(&frame);
        // Nothing was received into this buffer, so it must not go out.
        if (qx_edgesrc_flushing(src)) return GST_FLOW_FLUSHING;
        if (qx_edgesrc_reading_stopped(src)) {
            GST_ELEMENT_ERROR(src, RESOURCE, READ, ("The bus connection stopped reading."), (nullptr));
            return GST_FLOW_ERROR;
        }
        return GST_FLOW_NOT_NEGOTIATED;
    }
    gst_video_frame_unmap(&frame);
    if (src->priv->prerolling.load()) {
        // The preroll frame goes out before the pipeline has a clock: it
        // starts the stream at time 0, the frames after it carry the clock's
        // running time.
        GST_BUFFER_PTS(buffer) = 0;
        GST_BUFFER_DTS(buffer) = 0;
        src->priv->prerollFrameSent = true;
    }

    if (src->compressed == 1) {
        const cv::Mat &image = src->priv->image;
        const gsize available = image.isContinuous() ? image.total() * image.elemSize() : 0;
        const gsize bytes = std::min<gsize>(src->compressed_size, available);
        // The buffer is exactly the encoded picture: a decoder downstream
        // must not see the rest of a raw-sized allocation as trailing data.
        if (bytes > gst_buffer_get_size(buffer))
            gst_buffer_replace_all_memory(buffer, gst_allocator_alloc(nullptr, bytes, nullptr));
        gst_buffer_fill(buffer, 0, image.data, bytes);
        gst_buffer_set_size(buffer, static_cast<gssize>(bytes));
    }

    src->priv->buffersPushed++;
    GST_BUFFER_OFFSET(buffer) = src->accum_frames + src->n_frames;
    GST_BUFFER_OFFSET_END(buffer) = GST_BUFFER_OFFSET(buffer) + 1;
    if (src->reverse)
        src->n_frames--;
    else
        src->n_frames++;

    GstClockTime next_time;
    if (src->info.fps_n != 0) {
        next_time = gst_util_uint64_scale(static_cast<guint64>(src->n_frames),
                                          static_cast<guint64>(src->info.fps_d) * GST_SECOND,
                                          static_cast<guint64>(src->info.fps_n));
        GST_BUFFER_DURATION(buffer) = src->reverse ? src->running_time - next_time : next_time - src->running_time;
    } else {
        GST_BUFFER_DURATION(buffer) = GST_CLOCK_TIME_NONE;
        next_time = src->timestamp_offset;
    }
    src->running_time = next_time;
    GST_INFO_OBJECT(src, "Return GST_FLOW_OK");
    return GST_FLOW_OK;
}
