// The main job, one process per side: `publish` runs a test camera through the
// analysis element into qxedgesink; `subscribe` runs qxedgesrc into the
// overlay, records a video and snapshots, and reports what crossed the bus.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <set>
#include <thread>

#include "demo_options.h"
#include "demo_stats.h"
#include "gstqxmeta.h"

namespace {

using qxdemo::DemoOptions;
using Clock = std::chrono::steady_clock;

// Results go out before their frame, so they are already queued on the
// subscriber when the frame is paired; frames first leave the pairing one
// result behind.
const char* const kAllTagGroups = "ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData+VideoFrameData";
const char* const kResultTagGroups = "ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData";

std::string rawCaps(const char* format, const DemoOptions& o) {
    return std::string("video/x-raw,format=") + format + ",width=" + std::to_string(o.width) +
           ",height=" + std::to_string(o.height) + ",framerate=" + std::to_string(o.fps) + "/1";
}

std::string contextProperty(const DemoOptions& o) {
    return o.contextId.empty() ? std::string() : " context-id=" + o.contextId;
}

GstElement* launch(const std::string& description) {
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    if (error) {
        std::cerr << "qxedge-demo: cannot build pipeline: " << error->message << "\n  " << description << "\n";
        g_error_free(error);
        if (pipeline) gst_object_unref(pipeline);
        return nullptr;
    }
    return pipeline;
}

// Waits for end of stream or an error on the pipeline's bus.
bool waitForEnd(GstElement* pipeline, GstClockTime timeout) {
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* msg = gst_bus_timed_pop_filtered(bus, timeout, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    bool ok = false;
    if (!msg) {
        std::cerr << "qxedge-demo: pipeline did not finish in time\n";
    } else if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR) {
        GError* err = nullptr;
        gchar* dbg = nullptr;
        gst_message_parse_error(msg, &err, &dbg);
        std::cerr << "qxedge-demo: " << GST_OBJECT_NAME(msg->src) << ": " << err->message << "\n";
        g_error_free(err);
        g_free(dbg);
    } else {
        ok = true;
    }
    if (msg) gst_message_unref(msg);
    gst_object_unref(bus);
    return ok;
}

struct PublishCounts {
    std::atomic<int> frames{0};
    std::atomic<int> withBoxes{0};
};

GstPadProbeReturn countPublished(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto* counts = static_cast<PublishCounts*>(data);
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    counts->frames++;
    if (GstQxBatchMeta* meta = gst_buffer_get_qx_batch_meta(buffer)) {
        if (!meta->frames.empty() && !meta->frames.front().det_results.empty()) counts->withBoxes++;
    }
    return GST_PAD_PROBE_OK;
}

int runPublisher(const DemoOptions& o) {
    const std::string description =
        "videotestsrc pattern=ball is-live=true num-buffers=" + std::to_string(o.frames) + " ! " + rawCaps("I420", o) +
        " ! qxanalyze stream-id=demo-camera-0 device-id=cam0 model=videotestsrc"
        " ! qxedgesink name=publisher taggroups=" + kAllTagGroups + contextProperty(o);
    GstElement* pipeline = launch(description);
    if (!pipeline) return 1;
    PublishCounts counts;
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "publisher");
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, countPublished, &counts, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);

    // The sink joins the bus on the way to READY; give the subscriber's
    // readers a moment to discover it before the first frame goes out (a
    // secured bus authenticates each pair of participants first, which takes longer).
    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
        std::cerr << "qxedge-demo: publisher could not open the bus\n";
        gst_object_unref(pipeline);
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(o.settleMs));
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    const GstClockTime budget = (static_cast<GstClockTime>(o.frames) / o.fps + 30) * GST_SECOND;
    const bool ok = waitForEnd(pipeline, budget);
    // Let reliable delivery of the last frames finish before the writers go.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    std::printf("published %d frames (%d with detection boxes)\n", counts.frames.load(), counts.withBoxes.load());
    std::fflush(stdout);
    return ok ? 0 : 1;
}

struct SubscribeTally {
    int received = 0;
    std::set<int> frameIds; // buffers can repeat a frame; this counts frames
    int matched = 0;
    int boxes = 0;
    std::vector<double> latencyMs;
    std::vector<std::string> snapshots;
    Clock::time_point first{};
    Clock::time_point last{};
};

void writeSnapshot(GstSample* sample, const DemoOptions& o, SubscribeTally& tally) {
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample))) return;
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ)) return;
    const cv::Mat picture(GST_VIDEO_FRAME_HEIGHT(&frame), GST_VIDEO_FRAME_WIDTH(&frame), CV_8UC3,
                          GST_VIDEO_FRAME_PLANE_DATA(&frame, 0), GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
    char name[64];
    std::snprintf(name, sizeof name, "frame-%04d.png", tally.received);
    const std::string path = (std::filesystem::path(o.outDir) / name).string();
    if (cv::imwrite(path, picture)) tally.snapshots.push_back(path);
    gst_video_frame_unmap(&frame);
}

void account(GstSample* sample, const DemoOptions& o, SubscribeTally& tally) {
    const auto now = Clock::now();
    if (tally.received == 0) tally.first = now;
    tally.last = now;
    tally.received++;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    bool hasBoxes = false;
    if (GstQxBatchMeta* meta = gst_buffer_get_qx_batch_meta(buffer); meta && !meta->frames.empty()) {
        const VideoFrameData& f = meta->frames.front();
        tally.frameIds.insert(f.frame_id);
        if (!f.class_results.empty() || !f.det_results.empty()) tally.matched++;
        hasBoxes = !f.det_results.empty();
        tally.boxes += static_cast<int>(f.det_results.size());
        const std::int64_t sent = qxdemo::digitTimeToEpochMs(f.timestamp);
        if (sent > 0) tally.latencyMs.push_back(static_cast<double>(qxdemo::nowEpochMs() - sent));
    }
    // One snapshot a second, starting with the first frame that shows boxes
    // (or the first frame, if boxes are late): what the viewer sees is what
    // arrived, boxes or not.
    const int every = std::max(1, o.fps);
    const bool due = tally.snapshots.empty() ? (hasBoxes || tally.received > every) : tally.received % every == 0;
    if (o.record && static_cast<int>(tally.snapshots.size()) < o.snapshots && due) writeSnapshot(sample, o, tally);
}

int runSubscriber(const DemoOptions& o) {
    std::filesystem::create_directories(o.outDir);
    const std::string video = (std::filesystem::path(o.outDir) / "received.mkv").string();
    const std::string source = std::string("qxedgesrc taggroups=") + kResultTagGroups + contextProperty(o) +
                               " pairing=" + o.pairing + " ! " + rawCaps("BGR", o);
    const std::string frames = " ! queue ! appsink name=frames sync=false max-buffers=200";
    const std::string description =
        o.record ? source + " ! qxoverlay ! tee name=t t. ! queue ! videoconvert ! jpegenc ! matroskamux" +
                       " ! filesink location=" + video + " t." + frames
                 : source + frames;
    GstElement* pipeline = launch(description);
    if (!pipeline) return 1;
    GstElement* appsink = gst_bin_get_by_name(GST_BIN(pipeline), "frames");

    // The pipeline reaches PLAYING once the source's first frame arrived; if
    // no publisher ever shows up, end the process rather than wait forever.
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    const GstStateChangeReturn started =
        gst_element_get_state(pipeline, nullptr, nullptr, static_cast<GstClockTime>(o.seconds) * GST_SECOND);
    if (started == GST_STATE_CHANGE_FAILURE) {
        std::cerr << "qxedge-demo: subscriber could not start\n";
        std::_Exit(1);
    }
    if (started == GST_STATE_CHANGE_ASYNC) {
        std::fprintf(stderr, "qxedge-demo: no frame arrived within %d s; is a publisher running on this bus?\n",
                     o.seconds);
        std::_Exit(1);
    }

    SubscribeTally tally;
    const auto runEnd = Clock::now() + std::chrono::seconds(o.seconds);
    auto lastFrame = Clock::now();
    while (Clock::now() < runEnd) {
        GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(appsink), 100 * GST_MSECOND);
        if (!sample) {
            if (gst_app_sink_is_eos(GST_APP_SINK(appsink))) break;
            if (Clock::now() - lastFrame > std::chrono::seconds(o.idleSeconds)) break;
            continue;
        }
        lastFrame = Clock::now();
        account(sample, o, tally);
        gst_sample_unref(sample);
        if (o.expect > 0 && static_cast<int>(tally.frameIds.size()) >= o.expect) break;
    }

    // End of stream finalises the recording.
    gst_element_send_event(pipeline, gst_event_new_eos());
    waitForEnd(pipeline, 5 * GST_SECOND);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(appsink);
    gst_object_unref(pipeline);

    const double span = std::chrono::duration<double>(tally.last - tally.first).count();
    const double fps = (tally.received > 1 && span > 0) ? (tally.received - 1) / span : 0.0;
    const auto latency = qxdemo::summarise(tally.latencyMs);
    std::printf("frames received:              %zu distinct (%d buffers)\n", tally.frameIds.size(), tally.received);
    std::printf("frames with matched results:  %d\n", tally.matched);
    std::printf("detection boxes received:     %d\n", tally.boxes);
    std::printf("frames per second:            %.1f\n", fps);
    std::printf("latency ms (median / p99):    %.0f / %.0f  (%zu frames)\n", latency.median, latency.p99,
                latency.count);
    if (o.record) std::printf("video:                        %s\n", video.c_str());
    for (const auto& s : tally.snapshots) std::printf("snapshot:                     %s\n", s.c_str());
    std::fflush(stdout);
    return tally.received > 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    std::string error;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::fputs(qxdemo::usageText(), stdout);
            return 0;
        }
    }
    const auto options = qxdemo::parseOptions(argc, argv, error);
    if (!options) {
        std::fprintf(stderr, "qxedge-demo: %s\n\n%s", error.c_str(), qxdemo::usageText());
        return 2;
    }
    gst_init(&argc, &argv);
    return options->mode == DemoOptions::Mode::publish ? runPublisher(*options) : runSubscriber(*options);
}
