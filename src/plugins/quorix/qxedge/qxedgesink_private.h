#pragma once
// The sink's instance layout and private state, shared by the element and its
// per-frame padding and publishing code (utils/sink). Not installed.

#include <gst/video/video.h>

#include <memory>
#include <string>
#include <vector>

#include "frame_information.h"
#include "modelloader.h"
#include "qxedgesink.h"
#include "uni_information.h"

GST_DEBUG_CATEGORY_EXTERN(qx_edgesink_debug_category);

struct QxEdgeSinkPrivate {
    // Copied from info on every frame.
    int width = 0;
    int height = 0;
    std::shared_ptr<Edge> edge;
    std::vector<std::string> taggroups;
    std::string context_id;
    bool opened = false;
    bool uni = false;

    // Working records, one per tag group, reused from frame to frame so the
    // picture buffer keeps its capacity.
    TOLVIXO::FrameInfo frameInfo;
    TOLVIXO::DeviceInfo deviceInfo;
    TOLVIXO::Information<TOLVIXO::ClassificationData> classification;
    TOLVIXO::Information<TOLVIXO::DetectionBoxData> detection;
    TOLVIXO::SegmentInfo segment;
    TOLVIXO::UniInfo uniInfo;

    // While a frame is published: the mapped frame whose picture goes into
    // the video record. The picture is converted at publishing, straight into
    // the bus sample, instead of into frameInfo.data and then copied.
    const GstVideoFrame *pendingPicture = nullptr;
    // Bytes of that picture: what frameInfo.data would hold.
    std::size_t pictureBytes = 0;
};

struct _QxEdgeSink {
    GstVideoSink parent;
    GstVideoInfo info;
    // 1 while the frame being handled is an encoded picture (format "ENCODED").
    gint encoded;
    QxEdgeSinkPrivate *priv;
};
