// Plug-in entry of qxanalytics: the elements that produce and draw batch metadata
// without any model, so a pipeline shows real results end to end.

#include <gst/gst.h>

#include "gstqxanalyze.h"
#include "gstqxoverlay.h"

static gboolean plugin_init(GstPlugin *plugin) {
    return gst_element_register(plugin, "qxanalyze", GST_RANK_NONE, QX_TYPE_ANALYZE) &&
           gst_element_register(plugin, "qxoverlay", GST_RANK_NONE, QX_TYPE_OVERLAY);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, qxanalytics, "Quorix analytics elements without model files",
                  plugin_init, VERSION, "LGPL", "Quorix GStreamer IXO Plug-ins", "https://www.quorixtech.com/")
