#pragma once
// Test side of the qxedgesrc tests: a subscribing pipeline in this process
// (qxedgesrc ! caps ! appsink), the publishing helper as a child process, and
// the reference pictures the publisher's videotestsrc produces.

#include <chrono>
#include <future>
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

    // Sets the pipeline PLAYING on a thread of its own: the source blocks in
    // READY to PAUSED until the first frame arrives.
    void start();
    // True once the start thread's state change has returned.
    bool started(std::chrono::milliseconds wait) const;
    GstStateChangeReturn startResult();
    // True while the source is inside READY to PAUSED.
    bool waitingForFirstFrame() const;
    bool pull(Received &out, std::chrono::milliseconds timeout);
    bool eos() const;
    // Unlocks a source that waits for data, as a flush does.
    bool unlockSource();
    GstStateChangeReturn stop();
    GstElement *source() const { return source_; }

  private:
    GstElement *pipeline_ = nullptr;
    GstElement *source_ = nullptr;
    GstElement *appsink_ = nullptr;
    std::shared_future<GstStateChangeReturn> startFuture_;
    bool stopped_ = false;
};

// Environment for a child pipeline process: the build plug-ins and a registry of its own.
std::vector<std::pair<std::string, std::string>> childEnv(const qxtest::ConfigRoot &root, const std::string &tag);

// One publishing run: videotestsrc (smpte, moving) ! caps ! qxedgesink in a
// child process, with the metadata of src_expected.h on every frame. It waits
// a second in READY so that a subscriber started before it matches its writers.
struct PublisherRun {
    std::string format;
    int frames;
    std::string stream;
    std::string taggroups = srcexpect::kAllGroupsWithVideo;
    std::string contextId;
    int width = 320;
    int height = 240;
    int speed = 8;
    std::string encoder; // e.g. "jpegenc": publishes encoded pictures
};
std::unique_ptr<qxtest::ChildProcess> startPublisher(const qxtest::ConfigRoot &root, const PublisherRun &run);

// The frames the publisher's videotestsrc makes for the run, as B,G,R pictures.
std::vector<cv::Mat> referenceFrames(const PublisherRun &run);
// The buffers the publisher's source makes for a run with an encoder, byte for byte.
std::vector<std::vector<unsigned char>> referenceEncoded(const PublisherRun &run);

// True for image/jpeg and image/png caps.
bool isEncoded(GstCaps *caps);
std::vector<unsigned char> bytesOf(GstBuffer *buffer);
// Picture of a raw video buffer (I420, NV12 or BGR) as B,G,R.
cv::Mat toBgr(GstBuffer *buffer, GstCaps *caps);

double meanAbsDiff(const cv::Mat &a, const cv::Mat &b);

} // namespace srctest
