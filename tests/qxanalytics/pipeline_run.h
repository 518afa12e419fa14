#pragma once
// Runs gst-launch lines with the build tree's plug-ins and hands back what their appsinks received, or the error.

#include <map>
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
    std::map<std::string, std::vector<std::shared_ptr<GstBuffer>>> buffers; // per appsink, in arrival order
    std::string error; // message and debug text of the error the pipeline posted
};

// Plays the pipeline `runs` times and returns the last run's results, which so show that its elements start
// afresh. `input` goes into the appsrc "in" on every run and stays the caller's.
inline RunResult runPipeline(const std::string &launch, const std::vector<std::string> &sinks,
                             const std::vector<GstBuffer *> &input = {}, int runs = 1) {
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(launch.c_str(), &error);
    if (error) {
        ADD_FAILURE() << launch << ": " << error->message;
        g_clear_error(&error);
        return {};
    }
    // An appsink holds the end of stream back until its samples are pulled; here they are pulled after it.
    for (const std::string &name : sinks)
        gst_child_proxy_set(GST_CHILD_PROXY(pipeline), (name + "::wait-on-eos").c_str(), FALSE, nullptr);
    GstBus *bus = gst_element_get_bus(pipeline);
    RunResult result;
    for (int run = 0; run < runs; ++run) {
        result = {};
        if (GstElement *source = input.empty() ? nullptr : gst_bin_get_by_name(GST_BIN(pipeline), "in")) {
            for (GstBuffer *buffer : input)
                gst_app_src_push_buffer(GST_APP_SRC(source), gst_buffer_ref(buffer));
            gst_app_src_end_of_stream(GST_APP_SRC(source));
            gst_object_unref(source);
        }
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        // A guard against a hang only: nothing is judged by how long a run takes.
        GstMessage *end =
            gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        if (!end) result.error = "pipeline did not finish";
        if (end && GST_MESSAGE_TYPE(end) == GST_MESSAGE_ERROR) {
            gchar *debug = nullptr;
            gst_message_parse_error(end, &error, &debug);
            result.error = std::string(error->message) + " | " + (debug ? debug : "");
            g_clear_error(&error);
            g_free(debug);
        }
        if (end) gst_message_unref(end);
        for (const std::string &name : sinks) {
            GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), name.c_str());
            while (GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0)) // the buffer keeps it
                result.buffers[name].emplace_back(std::shared_ptr<GstSample>(sample, gst_sample_unref),
                                                  gst_sample_get_buffer(sample));
            gst_object_unref(sink);
        }
        gst_element_set_state(pipeline, GST_STATE_NULL);
    }
    gst_object_unref(bus);
    gst_object_unref(pipeline);
    return result;
}
