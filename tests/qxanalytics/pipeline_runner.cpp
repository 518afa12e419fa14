#include "pipeline_runner.h"

#include <chrono>
#include <mutex>
#include <stdexcept>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <glib/gstdio.h>

#include "qxtest/config_root.h"

namespace qxanalytics_test {

void initGstreamer() {
    static std::once_flag once;
    std::call_once(once, [] {
        qxtest::useBuildPluginsWithTemporaryRegistry();
        gst_init(nullptr, nullptr);
    });
}

Pipeline::Pipeline(const std::string &description) {
    initGstreamer();
    GError *parseError = nullptr;
    pipeline_ = gst_parse_launch(description.c_str(), &parseError);
    if (parseError) {
        const std::string message = parseError->message;
        g_error_free(parseError);
        if (pipeline_) gst_object_unref(pipeline_);
        throw std::runtime_error("cannot build \"" + description + "\": " + message);
    }
}

Pipeline::~Pipeline() {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
}

GstElement *Pipeline::element(const std::string &name) const {
    GstElement *found = gst_bin_get_by_name(GST_BIN(pipeline_), name.c_str());
    if (!found) throw std::runtime_error("no element named " + name);
    gst_object_unref(found); // the pipeline keeps it alive
    return found;
}

std::map<std::string, std::vector<GstSample *>> Pipeline::run(const std::vector<std::string> &sinks) {
    std::map<std::string, std::vector<GstSample *>> samples;
    error_.clear();
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    GstBus *bus = gst_element_get_bus(pipeline_);
    // Guards against a hang only; nothing is judged by how long a run takes.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < giveUp) {
        bool allEnded = true;
        for (const auto &name : sinks) {
            GstAppSink *sink = GST_APP_SINK(element(name));
            while (GstSample *sample = gst_app_sink_try_pull_sample(sink, 0))
                samples[name].push_back(sample);
            allEnded = allEnded && gst_app_sink_is_eos(sink);
        }
        // An error is posted before the end of stream it causes, so it is read even then.
        GstMessage *message = gst_bus_timed_pop_filtered(bus, allEnded ? 0 : 10 * GST_MSECOND, GST_MESSAGE_ERROR);
        if (message) {
            GError *err = nullptr;
            gchar *debug = nullptr;
            gst_message_parse_error(message, &err, &debug);
            error_ = std::string(err->message) + " | " + (debug ? debug : "");
            g_error_free(err);
            g_free(debug);
            gst_message_unref(message);
            break;
        }
        if (allEnded) break;
    }
    if (error_.empty() && std::chrono::steady_clock::now() >= giveUp) error_ = "pipeline did not finish";
    gst_object_unref(bus);
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    return samples;
}

void releaseSamples(std::map<std::string, std::vector<GstSample *>> &samples) {
    for (auto &[name, list] : samples)
        for (GstSample *sample : list)
            gst_sample_unref(sample);
    samples.clear();
}

std::vector<GstBuffer *> pushThrough(const std::string &description, const std::vector<GstBuffer *> &buffers,
                                     std::string &error) {
    Pipeline pipeline(description);
    GstAppSrc *source = GST_APP_SRC(pipeline.element("in"));
    for (GstBuffer *buffer : buffers)
        gst_app_src_push_buffer(source, buffer);
    gst_app_src_end_of_stream(source);
    auto samples = pipeline.run({"out"});
    error = pipeline.error();
    std::vector<GstBuffer *> out;
    for (GstSample *sample : samples["out"])
        out.push_back(gst_buffer_ref(gst_sample_get_buffer(sample)));
    releaseSamples(samples);
    return out;
}

} // namespace qxanalytics_test

namespace {

// Tests build buffers before any pipeline exists, so GStreamer is ready before the first test.
class GstreamerEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { qxanalytics_test::initGstreamer(); }
};

const ::testing::Environment *const gstreamerEnvironment =
    ::testing::AddGlobalTestEnvironment(new GstreamerEnvironment);

} // namespace
