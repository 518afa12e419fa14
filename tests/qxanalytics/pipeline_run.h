#pragma once
// Plays gst-launch lines with the build tree's plug-ins and hands back what reached their appsink, or the error.

#include <memory>
#include <string>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include "qxtest/config_root.h"

// GStreamer with the build tree's plug-ins and a private registry, ready before any test makes a buffer.
struct GstreamerEnvironment : ::testing::Environment {
    void SetUp() override {
        qxtest::useBuildPluginsWithTemporaryRegistry();
        gst_init(nullptr, nullptr);
    }
};
inline auto *const gstreamerEnvironment = ::testing::AddGlobalTestEnvironment(new GstreamerEnvironment);

struct RunResult {
    std::vector<std::shared_ptr<GstBuffer>> buffers; // that reached the appsink "out", in arrival order
    std::string error;                               // of the error the pipeline posted
};

// Plays the pipeline to its end. `input`, if any, goes into the appsrc "in", which takes it.
inline RunResult runPipeline(const std::string &launch, GstBuffer *input = nullptr) {
    g_autoptr(GstElement) pipeline =
        gst_parse_launch_full(launch.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, nullptr);
    if (!pipeline) return {{}, "cannot parse " + launch};
    if (input) {
        g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(pipeline), "in");
        gst_app_src_push_buffer(GST_APP_SRC(source), input);
        gst_app_src_end_of_stream(GST_APP_SRC(source));
    }
    g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    g_object_set(sink, "wait-on-eos", FALSE, nullptr); // else it holds the end of stream back until pulled from
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    // A guard against a hang only: nothing is judged by how long a run takes.
    g_autoptr(GstMessage) end = gst_bus_timed_pop_filtered(GST_ELEMENT_BUS(pipeline), 60 * GST_SECOND,
                                                           GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    RunResult result{{}, end ? "" : "pipeline did not finish"};
    if (end && GST_MESSAGE_TYPE(end) == GST_MESSAGE_ERROR) {
        g_autoptr(GError) error = nullptr;
        g_autofree gchar *debug = nullptr;
        gst_message_parse_error(end, &error, &debug);
        result.error = std::string(error->message) + " | " + (debug ? debug : "");
    }
    while (GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0)) // the buffer keeps it
        result.buffers.emplace_back(std::shared_ptr<GstSample>(sample, gst_sample_unref),
                                    gst_sample_get_buffer(sample));
    gst_element_set_state(pipeline, GST_STATE_NULL);
    return result;
}
