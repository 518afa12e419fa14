// Runs one publishing pipeline for the qxedgesink and qxedgesrc tests, in its
// own process as users run it. Usage:
//   sink_pipeline "<launch line with a qxedgesink named sink>" [--meta | --src-meta STREAM] [--retag NAMES]
//                 [--settle-ms N] [--cycle]
// --meta attaches the batch metadata of sink_meta_plan.h to every frame on
// its way into the sink; --src-meta the one of src_expected.h, under stream
// id STREAM, numbering frames from 0; --retag sets taggroups after the session
// is open; --settle-ms waits N ms in READY (and again in READY after a
// restart); --restart-after N takes the pipeline to NULL and back to PLAYING
// once N frames reached the sink.
// Exit: 0 on EOS, 2 on a pipeline error, 3 when the state change to READY fails.

#include <gst/gst.h>
#include <gst/video/video.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "../sink_meta_plan.h"
#include "../src_expected.h"
#include "gstqxmeta.h"

namespace {

struct Plan {
    bool sinkPlan = false;
    std::string srcStream; // non-empty: the qxedgesrc tests' plan
    std::atomic<int> count{0};
};

GstPadProbeReturn attachPlan(GstPad *pad, GstPadProbeInfo *info, gpointer data) {
    auto *plan = static_cast<Plan *>(data);
    GstBuffer *buffer = gst_pad_probe_info_get_buffer(info);
    if (buffer == nullptr) return GST_PAD_PROBE_OK;
    const int number = plan->count++;
    if (!plan->sinkPlan && plan->srcStream.empty()) return GST_PAD_PROBE_OK;
    buffer = gst_buffer_make_writable(buffer);
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    int width = 0;
    int height = 0;
    if (GstCaps *caps = gst_pad_get_current_caps(pad)) {
        GstStructure *s = gst_caps_get_structure(caps, 0);
        gst_structure_get_int(s, "width", &width);
        gst_structure_get_int(s, "height", &height);
        gst_caps_unref(caps);
    }
    GstQxBatchMeta *batch = gst_buffer_add_qx_batch_meta(buffer);
    if (plan->sinkPlan) {
        sinkplan::fill(batch, GST_BUFFER_OFFSET(buffer), width, height);
    } else {
        batch->frames.push_back(srcexpect::frame(number, plan->srcStream, width, height));
        batch->devices.push_back(srcexpect::device());
    }
    return GST_PAD_PROBE_OK;
}

} // namespace

int main(int argc, char **argv) {
    gst_init(&argc, &argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: sink_pipeline LAUNCH [options, see the source]\n");
        return 64;
    }
    Plan plan;
    int settleMs = 0;
    std::string retag;
    int restartAfter = 0;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--meta") {
            plan.sinkPlan = true;
        } else if (arg == "--src-meta" && i + 1 < argc) {
            plan.srcStream = argv[++i];
        } else if (arg == "--settle-ms" && i + 1 < argc) {
            settleMs = std::atoi(argv[++i]);
        } else if (arg == "--retag" && i + 1 < argc) {
            retag = argv[++i];
        } else if (arg == "--restart-after" && i + 1 < argc) {
            restartAfter = std::atoi(argv[++i]);
        }
    }
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(argv[1], &error);
    if (pipeline == nullptr || error != nullptr) {
        std::fprintf(stderr, "launch failed: %s\n", error ? error->message : "?");
        return 64;
    }
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    if (sink == nullptr) {
        std::fprintf(stderr, "no element named sink\n");
        return 64;
    }
    {
        GstPad *pad = gst_element_get_static_pad(sink, "sink");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, attachPlan, &plan, nullptr);
        gst_object_unref(pad);
    }
    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
        std::printf("OPEN FAILED\n");
        std::fflush(stdout);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(sink);
        gst_object_unref(pipeline);
        return 3;
    }
    if (!retag.empty()) g_object_set(sink, "taggroups", retag.c_str(), nullptr);
    // The sink creates its writers on the way to READY; a subscriber started
    // earlier matches them during this wait, so the first frames and their
    // results are not written into an unmatched bus.
    std::this_thread::sleep_for(std::chrono::milliseconds(settleMs));
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    if (restartAfter > 0) {
        // Stop and start again with frames flowing, as an application does.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (plan.count < restartAfter && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        gst_element_set_state(pipeline, GST_STATE_NULL);
        if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
            std::printf("REOPEN FAILED\n");
            std::fflush(stdout);
            return 3;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(settleMs));
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        std::printf("RESTARTED\n");
        std::fflush(stdout);
    }
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *message = gst_bus_timed_pop_filtered(bus, 120 * GST_SECOND,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    int status = 2;
    if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        status = 0;
    } else if (message != nullptr) {
        GError *failure = nullptr;
        gchar *details = nullptr;
        gst_message_parse_error(message, &failure, &details);
        std::fprintf(stderr, "pipeline error: %s (%s)\n", failure ? failure->message : "?", details ? details : "");
        g_clear_error(&failure);
        g_free(details);
    }
    if (message != nullptr) gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    std::printf("DONE %d\n", status);
    std::fflush(stdout);
    return status;
}
