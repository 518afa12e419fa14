// Publishing side of the qxedgesrc tests and benchmarks: a pipeline
//   videotestsrc ! video/x-raw,... ! qxedgesink
// whose sink pad gets a GstQxBatchMeta on every buffer, with ids and results
// that are a known function of the frame number (see tests/elements/src_expected.h).
//
// Options (all --name=value):
//   frames, format, width, height, fps (framerate numerator, /1), pattern,
//   speed (horizontal-speed of the pattern), taggroups, context-id,
//   first-id (frame id of frame 0), stream (stream id), live (0/1),
//   stamp-time (1: timestamp = wall clock in ns at the probe, for latency),
//   settle-ms (time in READY before playing, for the bus to match peers).
// Prints "published <n>" when the pipeline ended.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include <gst/gst.h>

#include "../src_expected.h"
#include "gstqxmeta.h"

namespace {

struct Options {
    std::map<std::string, std::string> values;
    std::string get(const std::string &key, const std::string &fallback) const {
        auto it = values.find(key);
        return it == values.end() ? fallback : it->second;
    }
    int getInt(const std::string &key, int fallback) const {
        return std::atoi(get(key, std::to_string(fallback)).c_str());
    }
};

struct ProbeState {
    int firstId = 0;
    std::string stream;
    bool stampTime = false;
    int width = 0;
    int height = 0;
    int count = 0;
};

GstPadProbeReturn attachMeta(GstPad *, GstPadProbeInfo *info, gpointer data) {
    auto *state = static_cast<ProbeState *>(data);
    GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    buffer = gst_buffer_make_writable(buffer);
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    GstQxBatchMeta *meta = gst_buffer_add_qx_batch_meta(buffer);
    const int frameId = state->firstId + state->count;
    std::uint64_t timestamp = 0;
    if (state->stampTime) {
        timestamp = static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
                .count());
    }
    srcexpect::fillBatch(*meta, frameId, state->stream, state->width, state->height, timestamp);
    ++state->count;
    return GST_PAD_PROBE_OK;
}

} // namespace

int main(int argc, char **argv) {
    gst_init(&argc, &argv);
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg.rfind("--", 0) != 0) continue;
        auto eq = arg.find('=');
        if (eq == std::string::npos) continue;
        options.values[arg.substr(2, eq - 2)] = arg.substr(eq + 1);
    }

    ProbeState state;
    state.firstId = options.getInt("first-id", 0);
    state.stream = options.get("stream", "stream-A");
    state.stampTime = options.getInt("stamp-time", 0) != 0;
    state.width = options.getInt("width", 320);
    state.height = options.getInt("height", 240);

    const std::string contextId = options.get("context-id", "");
    std::string description =
        "videotestsrc name=v num-buffers=" + options.get("frames", "30") +
        " pattern=" + options.get("pattern", "smpte") + " horizontal-speed=" + options.get("speed", "8") +
        " is-live=" + (options.getInt("live", 0) ? "true" : "false") +
        " ! video/x-raw,format=" + options.get("format", "I420") + ",width=" + std::to_string(state.width) +
        ",height=" + std::to_string(state.height) + ",framerate=" + options.get("fps", "30") +
        "/1 ! qxedgesink name=sink taggroups=" + options.get("taggroups", srcexpect::kAllGroupsWithVideo);
    if (!contextId.empty()) description += " context-id=" + contextId;

    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(description.c_str(), &error);
    if (pipeline == nullptr || error != nullptr) {
        std::fprintf(stderr, "pipeline failed: %s\n", error ? error->message : "unknown");
        return 2;
    }
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    GstPad *pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, attachMeta, &state, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);

    // The sink creates its writers on the way to READY; a subscriber started
    // earlier matches them while the pipeline waits here, so the first frames
    // and their results are not written into an unmatched bus.
    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
        std::fprintf(stderr, "pipeline did not open\n");
        return 3;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(options.getInt("settle-ms", 0)));
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        std::fprintf(stderr, "pipeline did not start\n");
        return 3;
    }
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *message = gst_bus_timed_pop_filtered(bus, 120 * GST_SECOND,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    int status = 0;
    if (message == nullptr) {
        std::fprintf(stderr, "pipeline did not end\n");
        status = 4;
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError *err = nullptr;
        gst_message_parse_error(message, &err, nullptr);
        std::fprintf(stderr, "pipeline error: %s\n", err ? err->message : "unknown");
        g_clear_error(&err);
        status = 5;
    }
    if (message) gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    std::printf("published %d\n", state.count);
    std::fflush(stdout);
    return status;
}
