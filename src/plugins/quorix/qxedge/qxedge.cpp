// Plug-in entry: registers the publishing and the subscribing element.

#include <gst/gst.h>

#include "qxedgesink.h"
#include "qxedgesrc.h"

GST_DEBUG_CATEGORY_STATIC(qx_edge_debug);

static gboolean plugin_init(GstPlugin *plugin) {
    if (qx_edge_debug == nullptr) {
        GST_DEBUG_CATEGORY_INIT(qx_edge_debug, "[edge debug]", 0, "Edge plugins");
    }
    gboolean registered = gst_element_register(plugin, "qxedgesink", GST_RANK_NONE, QX_TYPE_EDGESINK);
    if (!registered) {
        return registered;
    }
    registered = gst_element_register(plugin, "qxedgesrc", GST_RANK_NONE, qx_edgesrc_get_type());
    return registered;
}

// PACKAGE (set by the build) is the source package; the argument below is the
// binary package name that gst-inspect shows.
#ifndef PACKAGE
#define PACKAGE "ixo-tolv-plugin"
#endif

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, qxedge, "QUORIX Kelpkit plugin", plugin_init, "2.3.0", "LGPL",
                  "Quorix GStreamer IXO Plug-ins", "https://www.quorixtech.com/")
