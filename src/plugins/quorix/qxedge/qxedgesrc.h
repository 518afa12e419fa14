#pragma once
// qxedgesrc: a live push source that subscribes to the bus, pairs every frame
// with its inference results and pushes raw video buffers carrying them as
// GstQxBatchMeta. Registered by the plug-in entry in qxedge.cpp.

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define QX_TYPE_EDGESRC (qx_edgesrc_get_type())
G_DECLARE_FINAL_TYPE(QxEdgeSrc, qx_edgesrc, QX, EDGESRC, GstPushSrc)

G_END_DECLS
