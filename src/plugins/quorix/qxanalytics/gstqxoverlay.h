#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define QX_TYPE_OVERLAY (qx_overlay_get_type())
G_DECLARE_FINAL_TYPE(QxOverlay, qx_overlay, QX, OVERLAY, GstBaseTransform)

G_END_DECLS
