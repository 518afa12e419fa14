#pragma once
// qxedgesink: a video sink that publishes every frame's picture and the
// inference results attached to it (GstQxBatchMeta) to the bus as tag groups.

#include <gst/video/gstvideosink.h>

G_BEGIN_DECLS

#define QX_TYPE_EDGESINK (qx_edgesink_get_type())
G_DECLARE_FINAL_TYPE(QxEdgeSink, qx_edgesink, QX, EDGESINK, GstVideoSink)

G_END_DECLS
