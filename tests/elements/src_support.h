#pragma once
// Test side of the qxedgesrc tests: a subscribing pipeline in this process
// (qxedgesrc ! caps ! appsink), the publishing helper as a child process, and
// the reference pictures the publisher's videotestsrc produces.

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gst/gst.h>
#include <opencv2/core.hpp>

#include "gstqxmeta.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "src_expected.h"

namespace srctest {

using namespace std::chrono_literals;

// Initialises GStreamer once for this binary with the build tree's plug-ins.
void initGst();

// One buffer as the subscriber received it.
struct Received {
    cv::Mat bgr; // picture converted to B,G,R for comparison
    std::vector<VideoFrameData> frames;
    std::vector<DeviceInfoData> devices;
    bool hasMeta = false;
    std::vector<unsigned char> encoded; // the buffer's bytes, for image/jpeg or image/png caps
};

class Subscriber {
  public:
    // props: qxedgesrc properties ("taggroups=..."), caps: the capsfilter after it.
    Subscriber(const std::string &props, const std::string &caps);
    ~Subscriber();
    Subscriber(const Subscriber &) = delete;
    Subscriber &operator=(const Subscriber &) = delete;

    // Sets the pipeline PLAYING, as an application does; until its first
    // frame arrives the source stays in READY to PAUSED.
    void start();
    GstStateChangeReturn startResult() const { return startResult_; }
    // True while the source is inside READY to PAUSED.
    bool waitingForFirstFrame() const;
    bool pull(Received &out, std::chrono::milliseconds timeout);
    bool eos() const;
    GstStateChangeReturn stop();
    GstElement *pipeline() const { return pipeline_; }
    GstElement *source() const { return source_; }

  private:
    GstElement *pipeline_ = nullptr;
    GstElement *source_ = nullptr;
    GstElement *appsink_ = nullptr;
    GstStateChangeReturn startResult_ = GST_STATE_CHANGE_FAILURE;
    bool stopped_ = true;
};

// Environment for a child pipeline process: the build plug-ins, a registry of
// its own, and GST_DEBUG when the test reads the log.
std::vector<std::pair<std::string, std::string>> childEnv(const qxtest::ConfigRoot &root,
                                                          const std::string &debug = "");
// Runs helpers/sink_pipeline (options: see there) on the launch line in a child process.
std::unique_ptr<qxtest::ChildProcess> startPipeline(const qxtest::ConfigRoot &root, const std::string &launch,
                                                    const std::vector<std::string> &options = {},
                                                    const std::string &debug = "");

// One publishing run: videotestsrc (smpte, moving) ! 320x240 caps ! qxedgesink
// in a child process, with the metadata of src_expected.h on every frame. It
// waits a second in READY so that a subscriber started before it matches its writers.
struct PublisherRun {
    std::string format;
    int frames;
    std::string stream;
    std::string taggroups = srcexpect::kAllGroupsWithVideo;
    std::string contextId;
    std::string encoder; // e.g. "jpegenc": publishes encoded pictures
    int width = 320;
    int height = 240;
};
std::unique_ptr<qxtest::ChildProcess> startPublisher(const qxtest::ConfigRoot &root, const PublisherRun &run);

// Pulls buffers while the publisher runs, until its frame lastFrameId arrived
// or nothing more came for a while after it ended.
std::vector<Received> collect(Subscriber &subscriber, qxtest::ChildProcess &publisher, int lastFrameId);

// The source of a run ("videotestsrc ... ! caps [! encoder]"), and what such a
// source makes when run alone: each picture as B,G,R, or each buffer's bytes.
std::string sourceOf(const PublisherRun &run);
std::vector<cv::Mat> referenceFrames(const std::string &source);
std::vector<std::vector<unsigned char>> referenceEncoded(const std::string &source);

double meanAbsDiff(const cv::Mat &a, const cv::Mat &b);

} // namespace srctest
