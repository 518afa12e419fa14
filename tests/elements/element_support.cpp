#include "element_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <mutex>

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>
#include <opencv2/imgproc.hpp>

namespace elemtest {

void initGst() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (!gst_is_initialized()) {
            qxtest::useBuildPluginsWithTemporaryRegistry();
            gst_init(nullptr, nullptr);
        }
    });
}

namespace {

// A raw picture as B,G,R, converted by GStreamer: what the elements convert
// is compared with it within a tolerance (their exact arithmetic is checked
// against OpenCV by the conversion unit tests).
cv::Mat toBgr(GstSample *sample) {
    GstCaps *bgrCaps = gst_caps_from_string("video/x-raw,format=BGR");
    GstSample *converted = gst_video_convert_sample(sample, bgrCaps, 10 * GST_SECOND, nullptr);
    gst_caps_unref(bgrCaps);
    GstVideoInfo info;
    GstVideoFrame frame;
    cv::Mat bgr;
    if (converted && gst_video_info_from_caps(&info, gst_sample_get_caps(converted)) &&
        gst_video_frame_map(&frame, &info, gst_sample_get_buffer(converted), GST_MAP_READ)) {
        cv::Mat(info.height, info.width, CV_8UC3, GST_VIDEO_FRAME_PLANE_DATA(&frame, 0),
                GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0))
            .copyTo(bgr);
        gst_video_frame_unmap(&frame);
    }
    if (converted) gst_sample_unref(converted);
    return bgr;
}

std::vector<unsigned char> bytesOf(GstBuffer *buffer) {
    std::vector<unsigned char> bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

GstElement *parse(const std::string &description) {
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(description.c_str(), &error);
    if (error != nullptr) {
        const std::string message = error->message;
        g_clear_error(&error);
        throw std::runtime_error("pipeline " + description + ": " + message);
    }
    return pipeline;
}

} // namespace

Subscriber::Subscriber(const std::string &props, const std::string &caps) {
    initGst();
    pipeline_ = parse("qxedgesrc name=src " + props + " ! " + caps + " ! appsink name=out sync=false max-buffers=700");
    source_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
    appsink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "out");
}

Subscriber::~Subscriber() {
    stop();
    gst_object_unref(source_);
    gst_object_unref(appsink_);
    gst_object_unref(pipeline_);
}

bool Subscriber::waitingForFirstFrame() const {
    GST_OBJECT_LOCK(source_);
    const bool waiting = GST_STATE(source_) == GST_STATE_READY && GST_STATE_NEXT(source_) == GST_STATE_PAUSED;
    GST_OBJECT_UNLOCK(source_);
    return waiting;
}

bool Subscriber::pull(Received &out, std::chrono::milliseconds timeout) {
    GstSample *sample =
        gst_app_sink_try_pull_sample(GST_APP_SINK(appsink_), static_cast<GstClockTime>(timeout.count()) * GST_MSECOND);
    if (sample == nullptr) return false;
    out = Received{std::shared_ptr<GstSample>(sample, gst_sample_unref)};
    if (GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(gst_sample_get_buffer(sample))) {
        out.frames = meta->frames;
        out.devices = meta->devices;
    }
    return true;
}

cv::Mat Received::bgr() const { return toBgr(sample.get()); }
std::vector<unsigned char> Received::bytes() const { return bytesOf(gst_sample_get_buffer(sample.get())); }

std::uint64_t Subscriber::stat(const char *name) const {
    GstStructure *stats = nullptr;
    g_object_get(source_, "stats", &stats, nullptr);
    guint64 value = 0;
    if (stats != nullptr) gst_structure_get_uint64(stats, name, &value);
    if (stats != nullptr) gst_structure_free(stats);
    return value;
}

std::vector<std::pair<std::string, std::string>> childEnv(const qxtest::ConfigRoot &root, const std::string &debug) {
    std::vector<std::pair<std::string, std::string>> env{{"GST_PLUGIN_PATH", qxtest::pluginBuildDir()},
                                                         {"GST_REGISTRY", root.file("registry.bin")},
                                                         {"GST_REGISTRY_FORK", "no"}};
    if (!debug.empty()) env.insert(env.end(), {{"GST_DEBUG", debug}, {"GST_DEBUG_NO_COLOR", "1"}});
    return env;
}

std::unique_ptr<qxtest::ChildProcess> startPipeline(const qxtest::ConfigRoot &root, const std::string &launch,
                                                    const std::vector<std::string> &options, const std::string &debug) {
    std::vector<std::string> argv{std::string(QX_TEST_HELPER_DIR) + "/sink_pipeline", launch};
    argv.insert(argv.end(), options.begin(), options.end());
    return std::make_unique<qxtest::ChildProcess>(argv, root.path(), childEnv(root, debug));
}

std::unique_ptr<qxtest::ChildProcess> startLaunch(const qxtest::ConfigRoot &root, std::vector<std::string> args) {
    gchar *program = g_find_program_in_path("gst-launch-1.0");
    if (program == nullptr) throw std::runtime_error("gst-launch-1.0 is not installed");
    args.insert(args.begin(), program);
    g_free(program);
    return std::make_unique<qxtest::ChildProcess>(args, root.path(), childEnv(root));
}

std::string PublisherRun::source() const {
    return "videotestsrc num-buffers=" + std::to_string(frames) +
           " pattern=smpte horizontal-speed=8 ! video/x-raw,format=" + format + ",width=" + std::to_string(width) +
           ",height=" + std::to_string(height) + ",framerate=30/1" + (encoder.empty() ? "" : " ! " + encoder);
}

std::unique_ptr<qxtest::ChildProcess> startPublisher(const qxtest::ConfigRoot &root, const PublisherRun &run,
                                                     const std::string &debug) {
    std::string launch = run.source() + " ! qxedgesink name=sink taggroups=" + run.taggroups;
    if (!run.contextId.empty()) launch += " context-id=" + run.contextId;
    return startPipeline(root, launch,
                         {"--src-meta", run.stream, "--settle-ms", "1000", "--await-readers", std::to_string(run.readers)},
                         debug);
}

std::vector<Received> pull(Subscriber &subscriber, const std::string &stream, Until until) {
    std::vector<Received> got;
    auto quietSince = std::chrono::steady_clock::now();
    const auto deadline = quietSince + until.timeout;
    for (Received r; std::chrono::steady_clock::now() < deadline;) {
        if (subscriber.pull(r, 100ms)) {
            quietSince = std::chrono::steady_clock::now();
            if (gst_buffer_get_size(gst_sample_get_buffer(r.sample.get())) == 0)
                ADD_FAILURE() << "a buffer without a picture";
            if (r.frames.size() != 1) ADD_FAILURE() << "a buffer without a received frame";
            if (r.frames.size() != 1 || r.frames.front().stream_id != stream) continue;
            got.push_back(std::move(r));
            if (got.back().id() == until.lastId || got.size() == until.count) break;
        } else if (until.publisher && !until.publisher->running() &&
                   std::chrono::steady_clock::now() - quietSince > 3s) {
            break;
        } else if (until.publisher && until.publisher->running()) {
            quietSince = std::chrono::steady_clock::now();
        }
    }
    return got;
}

namespace {
// Runs a source alone and hands every sample to take.
template <typename Take> void forEachReferenceSample(const std::string &source, Take take) {
    initGst();
    GstElement *pipeline = parse(source + " ! appsink name=out sync=false");
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    while (GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 20 * GST_SECOND)) {
        take(sample);
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
}
} // namespace

std::vector<cv::Mat> referenceFrames(const std::string &source) {
    std::vector<cv::Mat> out;
    forEachReferenceSample(source, [&](GstSample *s) { out.push_back(toBgr(s)); });
    return out;
}

std::vector<std::vector<unsigned char>> referenceEncoded(const std::string &source) {
    std::vector<std::vector<unsigned char>> out;
    forEachReferenceSample(source, [&](GstSample *s) { out.push_back(bytesOf(gst_sample_get_buffer(s))); });
    return out;
}

double meanAbsDiff(const cv::Mat &a, const cv::Mat &b) {
    if (a.empty() || a.size() != b.size() || a.type() != b.type()) return 1e9;
    return cv::norm(a, b, cv::NORM_L1) / static_cast<double>(a.total() * a.channels());
}

std::size_t countOf(const std::string &text, const std::string &what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

double residentMb(const std::string &pid) {
    std::ifstream status("/proc/" + pid + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}

BusReader::BusReader(bool uni, const std::vector<std::string> &groups) {
    edge_ = Edge::create("config/Marlet.xml", "config/VideoFrameThingInProperties.json",
                         "definitions/ThingClass/com.vision.data/VideoFrameThingInClass.json",
                         {uni ? "definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"
                              : "definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json"},
                         "");
    if (!edge_) throw std::runtime_error("reader session could not be created");
    selectors_["VideoFrameData"] = edge_->thing.select("VideoFrameData").batch(64);
    for (const std::string &group : groups) {
        if (group == "VideoFrameData") continue;
        const std::string kind = group.substr(0, group.size() - 4); // "ClassificationData" -> "Classification"
        edge_->AddThing(group, "config/" + kind + "ThingInProperties.json",
                        "definitions/ThingClass/com.vision.data/" + kind + "ThingInClass.json",
                        {"definitions/TagGroup/com.vision.data/" + kind + "TagGroup.json"});
        selectors_[group] = edge_->things.at(group).select(group).batch(64);
    }
    // Readers open on their first read; open them now, so the publisher finds them.
    for (auto &[name, selector] : selectors_)
        for (auto &sample : selector.read<Pairs>(1))
            early_[name].push_back(sample.getData());
}

BusReader::~BusReader() { edge_->deinit(); }

std::map<std::string, std::vector<Pairs>> BusReader::collect(qxtest::ChildProcess &publisher, std::size_t expected) {
    std::map<std::string, std::vector<Pairs>> received = early_;
    const auto deadline = std::chrono::steady_clock::now() + 90s;
    for (bool quietAfterExit = false; !quietAfterExit && std::chrono::steady_clock::now() < deadline;) {
        const bool ended = !publisher.running();
        bool any = false;
        bool complete = true;
        for (auto &[name, selector] : selectors_) {
            for (auto &sample : selector.read<Pairs>(ended ? 500 : 100)) {
                received[name].push_back(sample.getData());
                any = true;
            }
            complete = complete && received[name].size() >= expected;
        }
        if (complete) break;
        quietAfterExit = ended && !any;
    }
    return received;
}

} // namespace elemtest
