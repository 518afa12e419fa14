#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define QX_TYPE_ANALYZE (qx_analyze_get_type())
G_DECLARE_FINAL_TYPE(QxAnalyze, qx_analyze, QX, ANALYZE, GstBaseTransform)

G_END_DECLS
