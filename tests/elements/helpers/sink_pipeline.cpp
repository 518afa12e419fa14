// Runs one publishing pipeline for the element tests, in its own process as
// users run it. Usage:
//   sink_pipeline "<launch line with a qxedgesink named sink>" [--meta | --src-meta STREAM] [--retag NAMES]
//                 [--settle-ms N] [--restart-after N]
// --meta attaches the sink checks' batch metadata of src_expected.h to every
// frame on its way into the sink; --src-meta its frames and device, under
// stream id STREAM, numbering frames from 0; --retag sets taggroups after the
// session is open; --settle-ms waits N ms in READY (and again after a
// restart); --restart-after N takes the pipeline to NULL and back to PLAYING
// once N frames reached the sink.
// Exit: 0 on EOS, 2 on a pipeline error, 3 when the state change to READY fails.

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "../src_expected.h"

namespace {

struct Plan {
    bool sinkPlan = false;
    std::string srcStream; // non-empty: the source tests' metadata
    std::atomic<int> count{0};
};

GstPadProbeReturn attachPlan(GstPad *pad, GstPadProbeInfo *info, gpointer data) {
    auto *plan = static_cast<Plan *>(data);
    const int number = plan->count++;
    if (!plan->sinkPlan && plan->srcStream.empty()) return GST_PAD_PROBE_OK;
    GstBuffer *buffer = gst_buffer_make_writable(gst_pad_probe_info_get_buffer(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    int width = 0, height = 0;
    if (GstCaps *caps = gst_pad_get_current_caps(pad)) {
        gst_structure_get_int(gst_caps_get_structure(caps, 0), "width", &width);
        gst_structure_get_int(gst_caps_get_structure(caps, 0), "height", &height);
        gst_caps_unref(caps);
    }
    GstQxBatchMeta *batch = gst_buffer_add_qx_batch_meta(buffer);
    if (plan->sinkPlan) {
        srcexpect::fillSinkBatch(batch, static_cast<int>(GST_BUFFER_OFFSET(buffer)), width, height);
    } else {
        batch->frames.push_back(srcexpect::frame(number, plan->srcStream, width, height));
        batch->devices.push_back(srcexpect::device());
    }
    return GST_PAD_PROBE_OK;
}

// READY, then the settling time for subscribers to match the writers opened
// on the way there, then PLAYING; false when READY cannot be reached.
bool open(GstElement *pipeline, int settleMs) {
    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(settleMs));
    return gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
    gst_init(&argc, &argv);
    std::map<std::string, std::string> options;
    for (int i = 2; i < argc; ++i) {
        const std::string name = argv[i];
        options[name] = name == "--meta" || i + 1 == argc ? "" : argv[++i];
    }
    GstElement *pipeline = argc > 1 ? gst_parse_launch(argv[1], nullptr) : nullptr;
    GstElement *sink = pipeline ? gst_bin_get_by_name(GST_BIN(pipeline), "sink") : nullptr;
    if (sink == nullptr) {
        std::fprintf(stderr, "usage: sink_pipeline LAUNCH-WITH-A-SINK-NAMED-sink [options, see the source]\n");
        return 64;
    }
    Plan plan;
    plan.sinkPlan = options.count("--meta") > 0;
    plan.srcStream = options["--src-meta"];
    const int settleMs = std::atoi(options["--settle-ms"].c_str());
    GstPad *pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, attachPlan, &plan, nullptr);
    gst_object_unref(pad);
    // The pipeline is released on every way out: the sanitizer build reports what is not.
    const auto end = [&](int status) {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(sink);
        gst_object_unref(pipeline);
        return status;
    };
    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) return end(3);
    if (!options["--retag"].empty()) g_object_set(sink, "taggroups", options["--retag"].c_str(), nullptr);
    if (!open(pipeline, settleMs)) return end(3);
    if (const int restartAfter = std::atoi(options["--restart-after"].c_str())) {
        // Stop and start again with frames flowing, as an application does.
        while (plan.count < restartAfter)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        gst_element_set_state(pipeline, GST_STATE_NULL);
        if (!open(pipeline, settleMs)) return end(3);
        std::printf("RESTARTED\n");
        std::fflush(stdout);
    }
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *message = gst_bus_timed_pop_filtered(bus, 120 * GST_SECOND,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const int status = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS ? 0 : 2;
    if (status != 0 && message) {
        GError *failure = nullptr;
        gst_message_parse_error(message, &failure, nullptr);
        std::fprintf(stderr, "pipeline error: %s\n", failure->message);
        g_clear_error(&failure);
    }
    if (message) gst_message_unref(message);
    gst_object_unref(bus);
    return end(status);
}
