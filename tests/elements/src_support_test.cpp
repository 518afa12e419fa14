// Support code of the qxedgesrc tests (named *_test.cpp only so that the
// element test binary picks it up); the tests themselves are in the other src_* files.

#include "src_support.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <gst/app/gstappsink.h>
#include <gst/base/gstbasesrc.h>
#include <gst/video/video.h>
#include <opencv2/imgproc.hpp>

namespace srctest {

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
// Picture of a raw video buffer as B,G,R, converted by GStreamer itself:
// OpenCV converts 4:2:0 pictures of even size only.
cv::Mat toBgrByGStreamer(GstBuffer *buffer, GstCaps *caps) {
    GstSample *sample = gst_sample_new(buffer, caps, nullptr, nullptr);
    GstCaps *bgrCaps = gst_caps_from_string("video/x-raw,format=BGR");
    GstSample *converted = gst_video_convert_sample(sample, bgrCaps, 10 * GST_SECOND, nullptr);
    gst_caps_unref(bgrCaps);
    gst_sample_unref(sample);
    if (converted == nullptr) return {};
    GstVideoInfo info;
    GstVideoFrame frame;
    cv::Mat bgr;
    if (gst_video_info_from_caps(&info, gst_sample_get_caps(converted)) &&
        gst_video_frame_map(&frame, &info, gst_sample_get_buffer(converted), GST_MAP_READ)) {
        bgr = cv::Mat(info.height, info.width, CV_8UC3, GST_VIDEO_FRAME_PLANE_DATA(&frame, 0),
                      GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0))
                  .clone();
        gst_video_frame_unmap(&frame);
    }
    gst_sample_unref(converted);
    return bgr;
}

// Copies a plane row by row into a packed matrix region.
void copyRows(guint8 *dst, const GstVideoFrame &frame, int plane, int rows, int rowBytes) {
    const auto *src = static_cast<const guint8 *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
    for (int r = 0; r < rows; ++r)
        std::memcpy(dst + r * rowBytes, src + r * stride, rowBytes);
}

// Picture of a raw video buffer (I420, NV12 or BGR) as B,G,R.
cv::Mat toBgr(GstBuffer *buffer, GstCaps *caps) {
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) return {};
    if ((GST_VIDEO_INFO_WIDTH(&info) | GST_VIDEO_INFO_HEIGHT(&info)) & 1) return toBgrByGStreamer(buffer, caps);
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) return {};
    const int w = GST_VIDEO_INFO_WIDTH(&info);
    const int h = GST_VIDEO_INFO_HEIGHT(&info);
    cv::Mat bgr;
    switch (GST_VIDEO_INFO_FORMAT(&info)) {
    case GST_VIDEO_FORMAT_I420: {
        cv::Mat yuv(h + h / 2, w, CV_8UC1);
        copyRows(yuv.data, frame, 0, h, w);
        copyRows(yuv.data + w * h, frame, 1, h / 2, w / 2);
        copyRows(yuv.data + w * h + (w / 2) * (h / 2), frame, 2, h / 2, w / 2);
        cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_I420);
        break;
    }
    case GST_VIDEO_FORMAT_NV12: {
        cv::Mat yuv(h + h / 2, w, CV_8UC1);
        copyRows(yuv.data, frame, 0, h, w);
        copyRows(yuv.data + w * h, frame, 1, h / 2, w);
        cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_NV12);
        break;
    }
    case GST_VIDEO_FORMAT_BGR:
        bgr.create(h, w, CV_8UC3);
        copyRows(bgr.data, frame, 0, h, w * 3);
        break;
    default:
        break;
    }
    gst_video_frame_unmap(&frame);
    return bgr;
}

bool isEncoded(GstCaps *caps) {
    const GstStructure *s = caps != nullptr && gst_caps_get_size(caps) > 0 ? gst_caps_get_structure(caps, 0) : nullptr;
    return s != nullptr && (gst_structure_has_name(s, "image/jpeg") || gst_structure_has_name(s, "image/png"));
}

std::vector<unsigned char> bytesOf(GstBuffer *buffer) {
    std::vector<unsigned char> bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}
} // namespace

Subscriber::Subscriber(const std::string &props, const std::string &caps) {
    initGst();
    const std::string description =
        "qxedgesrc name=src " + props + " ! " + caps + " ! appsink name=out sync=false max-buffers=500";
    GError *error = nullptr;
    pipeline_ = gst_parse_launch(description.c_str(), &error);
    if (error != nullptr) {
        std::string message = error->message;
        g_clear_error(&error);
        throw std::runtime_error("pipeline " + description + ": " + message);
    }
    source_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
    appsink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "out");
}

Subscriber::~Subscriber() {
    stop();
    if (source_) gst_object_unref(source_);
    if (appsink_) gst_object_unref(appsink_);
    if (pipeline_) gst_object_unref(pipeline_);
}

void Subscriber::start() {
    stopped_ = false;
    startResult_ = gst_element_set_state(pipeline_, GST_STATE_PLAYING);
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
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    out = Received{};
    GstCaps *caps = gst_sample_get_caps(sample);
    if (isEncoded(caps))
        out.encoded = bytesOf(buffer);
    else
        out.bgr = toBgr(buffer, caps);
    if (GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(buffer)) {
        out.hasMeta = true;
        out.frames = meta->frames;
        out.devices = meta->devices;
    }
    gst_sample_unref(sample);
    return true;
}

bool Subscriber::eos() const { return gst_app_sink_is_eos(GST_APP_SINK(appsink_)); }

GstStateChangeReturn Subscriber::stop() {
    if (stopped_) return GST_STATE_CHANGE_SUCCESS;
    stopped_ = true;
    return gst_element_set_state(pipeline_, GST_STATE_NULL);
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

std::unique_ptr<qxtest::ChildProcess> startPublisher(const qxtest::ConfigRoot &root, const PublisherRun &run) {
    std::string launch = sourceOf(run) + " ! qxedgesink name=sink taggroups=" + run.taggroups;
    if (!run.contextId.empty()) launch += " context-id=" + run.contextId;
    return startPipeline(root, launch, {"--src-meta", run.stream, "--settle-ms", "1000"});
}

std::vector<Received> collect(Subscriber &subscriber, qxtest::ChildProcess &publisher, int lastFrameId) {
    std::vector<Received> received;
    auto quietSince = std::chrono::steady_clock::now();
    const auto deadline = std::chrono::steady_clock::now() + 90s;
    while (std::chrono::steady_clock::now() < deadline) {
        Received r;
        if (subscriber.pull(r, 200ms)) {
            const bool last = !r.frames.empty() && r.frames.front().frame_id == lastFrameId;
            received.push_back(std::move(r));
            quietSince = std::chrono::steady_clock::now();
            if (last) break;
        } else if (publisher.running()) {
            quietSince = std::chrono::steady_clock::now();
        } else if (std::chrono::steady_clock::now() - quietSince > 3s) {
            break;
        }
    }
    return received;
}

std::string sourceOf(const PublisherRun &run) {
    return "videotestsrc num-buffers=" + std::to_string(run.frames) +
           " pattern=smpte horizontal-speed=8 ! video/x-raw,format=" + run.format +
           ",width=" + std::to_string(run.width) + ",height=" + std::to_string(run.height) + ",framerate=30/1" +
           (run.encoder.empty() ? "" : " ! " + run.encoder);
}

namespace {
// Runs a source alone and hands every sample to take.
template <typename Take> void forEachReferenceSample(const std::string &source, Take take) {
    initGst();
    const std::string description = source + " ! appsink name=out sync=false";
    GstElement *pipeline = gst_parse_launch(description.c_str(), nullptr);
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
    forEachReferenceSample(source, [&](GstSample *sample) {
        out.push_back(toBgr(gst_sample_get_buffer(sample), gst_sample_get_caps(sample)));
    });
    return out;
}

std::vector<std::vector<unsigned char>> referenceEncoded(const std::string &source) {
    std::vector<std::vector<unsigned char>> out;
    forEachReferenceSample(source, [&](GstSample *sample) { out.push_back(bytesOf(gst_sample_get_buffer(sample))); });
    return out;
}

double meanAbsDiff(const cv::Mat &a, const cv::Mat &b) {
    if (a.empty() || b.empty() || a.size() != b.size() || a.type() != b.type()) return 1e9;
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    const cv::Scalar sums = cv::sum(diff);
    return (sums[0] + sums[1] + sums[2]) / (static_cast<double>(a.total()) * a.channels());
}

} // namespace srctest
