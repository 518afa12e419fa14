// Invalid input. Guards against: formats qxanalyze or qxoverlay cannot handle passing instead of failing
// negotiation, and a mistyped ip-address or mac-address of qxanalyze being taken, to be published with every frame
// (it must be refused with a message naming it and the previous value kept; an empty value clears the field).

#include "pipeline_run.h"

namespace {

void collectErrors(GstDebugCategory *category, GstDebugLevel level, const gchar *, const gchar *, gint, GObject *,
                   GstDebugMessage *message, gpointer logged) {
    if (level == GST_LEVEL_ERROR && std::string(gst_debug_category_get_name(category)) == "qxanalyze")
        static_cast<std::string *>(logged)->append(gst_debug_message_get(message)).append("\n");
}

TEST(InvalidInput, IsRefusedWithAClearMessage) {
    struct Case {
        const char *format;   // caps pushed into the element; nullptr: the element is only set up
        const char *element;  // with its properties
        const char *message;  // in the pipeline's error, or else among the errors logged (nullptr: none)
        const char *ip, *mac; // the addresses the element keeps
    };
    const std::vector<Case> cases = {
        {"GRAY8", "qxanalyze", "not-negotiated"},
        {"I420", "qxoverlay", "not-negotiated"},
        // Each refused value after the accepted first one is shown by that value being kept.
        {nullptr, "qxanalyze ip-address=::1 ip-address=localhost ip-address=10.1.2 ip-address=127.0.0.256",
         "ip-address \"127.0.0.256\" is not an IPv4 or IPv6 address; keeping the previous value", "::1", ""},
        {nullptr,
         "qxanalyze mac-address=02-00-5E-10-00-01 mac-address=02:00-5e:10:00:01 mac-address=aa:bb:cc:dd:ee:fg "
         "mac-address=02:00:5e:10:00",
         "mac-address \"02:00:5e:10:00\" is not six hex pairs separated by ':' or '-'; keeping the previous value", "",
         "02-00-5E-10-00-01"},
        {nullptr, "qxanalyze ip-address=127.0.0.1 ip-address=\"\" mac-address=aa:bb:cc:dd:ee:ff mac-address=\"\"",
         nullptr, "", ""}};
    gst_debug_set_threshold_for_name("qxanalyze", GST_LEVEL_ERROR);
    std::string logged;
    gst_debug_add_log_function(collectErrors, &logged, nullptr);
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.format ? c.format : "") + " " + c.element);
        logged.clear();
        if (c.format) {
            GstBuffer *picture = gst_buffer_new_allocate(nullptr, 64 * 48 * 2, nullptr);
            RunResult run =
                runPipeline(std::string("appsrc name=in format=time caps=video/x-raw,format=") + c.format +
                                ",width=64,height=48,framerate=30/1 ! " + c.element + " ! appsink name=out sync=false",
                            {"out"}, {picture});
            gst_buffer_unref(picture);
            EXPECT_NE(run.error.find(c.message), std::string::npos) << run.error;
            EXPECT_TRUE(run.buffers["out"].empty());
            continue;
        }
        GstElement *analyze = gst_parse_launch(c.element, nullptr);
        gchar *ip = nullptr, *mac = nullptr;
        g_object_get(analyze, "ip-address", &ip, "mac-address", &mac, nullptr);
        EXPECT_EQ(std::string(ip) + " " + mac, std::string(c.ip) + " " + c.mac);
        g_free(ip);
        g_free(mac);
        gst_object_unref(analyze);
        EXPECT_TRUE(c.message ? logged.find(c.message) != std::string::npos : logged.empty()) << logged;
    }
    gst_debug_remove_log_function(collectErrors);
}

} // namespace
