#pragma once
// Instance layout of qxedgesrc, shared by the element (qxedgesrc.cpp) and the
// extraction of synchronised records into buffers (utils/src/srcextracting.cpp).
// Not installed: nothing outside the plug-in sees these structures.

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gst/base/gstpushsrc.h>
#include <gst/video/video.h>
#include <opencv2/core.hpp>

#include "modelloader.h"
#include "qxedgesrc.h"
#include "qxedgesrc_pairing.h"
#include "receiver.h"

GST_DEBUG_CATEGORY_EXTERN(qx_edgesrc_debug);

// C++ part of the element: made with new in init, deleted in finalize.
struct QxEdgeSrcPrivate {
    ReceiveImage ImageReceiver;
    std::shared_ptr<Edge> edge;
    std::vector<std::string> taggroups;
    std::string context_id;
    // The picture being delivered; apart from the receiver's own matrix, which
    // the reader threads overwrite with every frame that arrives.
    cv::Mat image;
    bool subscribed = false;
    bool uni = false;

    // Pairing of separate tag groups. The engine exists from subscription
    // (NULL to READY) to READY to NULL in frame-id mode only.
    QxEdgeSrcPairing pairingMode = QX_EDGESRC_PAIRING_COMPATIBLE;
    guint resultWaitMs = 200;
    std::unique_ptr<PairingEngine> pairing;
    // The entry being delivered, in frame-id mode: the working image shows
    // its picture bytes in place until the next one.
    SynchronizedData current;
    std::atomic<guint64> buffersPushed{0};

    // Set while the base class asks this element to stop waiting (flush,
    // stop). Each element has its own: stopping one source never cuts short
    // what another one in the same process waits for.
    std::atomic<bool> flushing{false};
    // True from a READY to PAUSED that found no frame yet until the first
    // buffer is out. Meanwhile the element is not live, so that its first
    // frame can preroll the sinks downstream; it is live again afterwards.
    std::atomic<bool> prerolling{false};
    bool prerollFrameSent = false; // streaming thread only
    // State cookie of the READY to PAUSED that is waiting for the first frame.
    guint32 waitingCookie = 0;
    // The application asked for end of stream (gst-launch -e on Ctrl-C does).
    std::atomic<bool> eosRequested{false};
};

typedef gboolean (*QxEdgeSrcReceiveFunc)(QxEdgeSrc *src, GstVideoFrame *frame, GstMeta *meta, GstBuffer *buffer);

struct _QxEdgeSrc {
    GstPushSrc parent;

    GstVideoInfo info;
    QxEdgeSrcPrivate *priv;

    GstClockTime timestamp_offset;
    GstClockTime running_time;
    gint64 n_frames;
    gboolean reverse;
    gint64 accum_frames;

    QxEdgeSrcReceiveFunc receive_image;

    // Line scratch buffers, re-allocated on every caps change.
    guint8 *tmpline_u8;
    guint8 *tmpline;
    guint8 *tmpline2;
    guint16 *tmpline_u16;

    gint width_to_set;
    gint height_to_set;

    gint compressed;
    guint compressed_size;
};

// Set on PAUSED to READY and cleared on READY to PAUSED of any source. One
// flag for the process; atomic because threads of several elements touch it.
// The waiting loops of an element read only that element's own flags (see
// QxEdgeSrcPrivate::flushing), so one element's stop never ends another's wait.
extern std::atomic<bool> qx_edgesrc_terminate;

// True when the bus connection has stopped its readers.
bool qx_edgesrc_reading_stopped(QxEdgeSrc *src);
// True while this element is asked to stop waiting for bus data.
bool qx_edgesrc_flushing(QxEdgeSrc *src);
