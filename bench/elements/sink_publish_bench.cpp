// Publishing cost of qxedgesink per 1080p frame, as a ratio against a peer
// that does the same colour conversion with GStreamer's own converter and
// drops the result:
//   videotestsrc num-buffers=300 ! video/x-raw,format=X,width=1920,height=1080 ! qxedgesink taggroups=VideoFrameData
//   videotestsrc num-buffers=300 ! video/x-raw,format=X,width=1920,height=1080 ! videoconvert ! video/x-raw,format=BGR
//   ! fakesink
// Both run in the same process, one after the other, on the same frames; the
// sink publishes on a private domain with no subscriber. The counters give
// milliseconds per frame for each and the ratio sink / peer.

#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
constexpr int kFrames = 300;

// A copy of the shipped configuration on a domain of its own (above the
// range the tests lease), made the working directory so the sink finds it first.
void enterPrivateRoot() {
    const fs::path root = fs::temp_directory_path() / ("qxedge-sink-bench-" + std::to_string(getpid()));
    fs::remove_all(root);
    fs::copy(fs::path(QX_SOURCE_DIR) / "common" / "data_model", root, fs::copy_options::recursive);
    const fs::path config = root / "config" / "Marlet.xml";
    std::stringstream text;
    text << std::ifstream(config).rdbuf();
    std::string xml = text.str();
    const std::string from = "<Domain Id=\"0\">";
    const auto at = xml.find(from);
    if (at == std::string::npos) throw std::runtime_error("Marlet.xml has no default domain");
    xml.replace(at, from.size(), "<Domain Id=\"231\">");
    std::ofstream(config) << xml;
    fs::current_path(root);
    setenv("GST_PLUGIN_PATH", QX_PLUGIN_BUILD_DIR, 1);
    setenv("GST_REGISTRY", (root / "registry.bin").c_str(), 1);
}

// Runs a launch line to EOS and returns the seconds it took from PLAYING.
double runToEos(const std::string &launch) {
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(launch.c_str(), &error);
    if (pipeline == nullptr || error != nullptr) {
        throw std::runtime_error("cannot build: " + launch);
    }
    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
        gst_object_unref(pipeline);
        throw std::runtime_error("cannot open: " + launch);
    }
    const auto start = std::chrono::steady_clock::now();
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *message = gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const auto end = std::chrono::steady_clock::now();
    const bool eos = GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    if (!eos) throw std::runtime_error("pipeline error: " + launch);
    return std::chrono::duration<double>(end - start).count();
}

void BM_SinkPublishAgainstConvertPeer(benchmark::State &state, const char *format) {
    const std::string source = "videotestsrc num-buffers=" + std::to_string(kFrames) +
                               " ! video/x-raw,format=" + format + ",width=1920,height=1080,framerate=30/1";
    const std::string sink = source + " ! qxedgesink taggroups=VideoFrameData sync=false";
    const std::string peer = source + " ! videoconvert ! video/x-raw,format=BGR ! fakesink sync=false";
    double sinkSeconds = 0;
    double peerSeconds = 0;
    for (auto _ : state) {
        try {
            const double s = runToEos(sink);
            const double p = runToEos(peer);
            sinkSeconds += s;
            peerSeconds += p;
            state.SetIterationTime(s);
        } catch (const std::exception &e) {
            state.SkipWithError(e.what());
            return;
        }
    }
    const double frames = static_cast<double>(kFrames) * static_cast<double>(state.iterations());
    state.counters["sink_ms_per_frame"] = 1000.0 * sinkSeconds / frames;
    state.counters["peer_ms_per_frame"] = 1000.0 * peerSeconds / frames;
    state.counters["ratio_sink_over_peer"] = peerSeconds > 0 ? sinkSeconds / peerSeconds : 0.0;
}

BENCHMARK_CAPTURE(BM_SinkPublishAgainstConvertPeer, I420, "I420")
    ->UseManualTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SinkPublishAgainstConvertPeer, NV12, "NV12")
    ->UseManualTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SinkPublishAgainstConvertPeer, BGR, "BGR")
    ->UseManualTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv) {
    enterPrivateRoot();
    gst_init(&argc, &argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
