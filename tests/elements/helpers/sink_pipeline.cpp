// Runs one publishing pipeline for the element tests, in its own process as
// users run it. Usage:
//   sink_pipeline "<launch line with a qxedgesink named sink>" [--meta | --src-meta STREAM] [--retag NAMES]
//                 [--settle-ms N] [--await-readers N] [--restart-after N]
// --meta attaches the sink checks' batch metadata of src_expected.h to every
// frame on its way into the sink; --src-meta its frames and device, under
// stream id STREAM, numbering frames from 0; --retag sets taggroups after the
// session is open; --settle-ms waits N ms in READY (and again after a
// restart); --await-readers N then waits (up to 30 s) until this process
// knows N readers of the video frames, so that a test which counts every frame
// does not lose the first ones to discovery that is slow under load;
// --restart-after N takes the pipeline to NULL and back to PLAYING once N
// frames reached the sink.
// Exit: 0 on EOS, 2 on a pipeline error, 3 when the state change to READY fails.

#include <dds/dds.h>
#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "../src_expected.h"
#include "marlet/marlet.h"

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

// A writer delivers a frame to the readers it knows of when it writes it: waits
// until the bus domain that the sink opened from config/Marlet.xml has
// discovered wanted readers of the video frames, or 30 s passed. The bus
// library hands back the sink's own participant for that file, so the probe
// joins its domain with its (loopback) configuration and never Cyclone's defaults.
void awaitReaders(std::size_t wanted) {
    if (wanted == 0) return;
    auto session = com::quorixtech::marlet::Marlet::getInstance(
        "config=file://" + std::filesystem::absolute("config/Marlet.xml").string());
    const dds_entity_t participant = dds_create_participant(session.domainId(), nullptr, nullptr);
    const dds_entity_t reader = dds_create_reader(participant, DDS_BUILTIN_TOPIC_DCPSSUBSCRIPTION, nullptr, nullptr);
    std::set<std::string> readers;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (readers.size() < wanted && std::chrono::steady_clock::now() < deadline) {
        void *samples[16] = {};
        dds_sample_info_t infos[16];
        const dds_return_t n = dds_take(reader, samples, infos, 16, 16);
        for (dds_return_t i = 0; i < n; ++i) {
            const auto *endpoint = static_cast<const dds_builtintopic_endpoint_t *>(samples[i]);
            if (infos[i].valid_data && std::string(endpoint->topic_name).find("VideoFrameData") != std::string::npos)
                readers.emplace(reinterpret_cast<const char *>(endpoint->key.v), sizeof endpoint->key.v);
        }
        if (n > 0) dds_return_loan(reader, samples, n);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (readers.size() < wanted) std::fprintf(stderr, "only %zu of %zu readers known\n", readers.size(), wanted);
    dds_delete(participant);
    session.close();
}

// READY, then the settling time for subscribers to match the writers opened
// on the way there, then PLAYING; false when READY cannot be reached.
bool open(GstElement *pipeline, int settleMs, std::size_t readers) {
    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(settleMs));
    awaitReaders(readers);
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
    const std::size_t readers = std::strtoul(options["--await-readers"].c_str(), nullptr, 10);
    if (!open(pipeline, settleMs, readers)) return end(3);
    if (const int restartAfter = std::atoi(options["--restart-after"].c_str())) {
        // Stop and start again with frames flowing, as an application does.
        while (plan.count < restartAfter)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        gst_element_set_state(pipeline, GST_STATE_NULL);
        if (!open(pipeline, settleMs, readers)) return end(3);
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
