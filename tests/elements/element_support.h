#pragma once
// Test side of the element tests. Publishers run as child processes
// (helpers/sink_pipeline) the way users run them; in this process, qxedgesrc
// pipelines (Subscriber) or the bus library itself (BusReader) receive what
// they sent, and the reference pictures come from the same sources run alone.

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gst/gst.h>
#include <opencv2/core.hpp>

#include "frame_information.h"
#include "gstqxmeta.h"
#include "modelloader.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "src_expected.h"
#include "uni_information.h"

namespace elemtest {

using namespace std::chrono_literals;
using Pairs = std::vector<com::quorixtech::iot::IOT_NVP>;

// Initialises GStreamer once for this binary with the build tree's plug-ins.
void initGst();

// One buffer as a subscriber received it. The picture is converted only when
// a test asks for it: converting every buffer of six sources would starve them.
struct Received {
    std::shared_ptr<GstSample> sample;
    std::vector<VideoFrameData> frames;
    std::vector<DeviceInfoData> devices;
    cv::Mat bgr() const;                      // the picture as B,G,R, for raw caps
    std::vector<unsigned char> bytes() const; // the buffer's bytes, for image/jpeg or image/png caps
    int id() const { return frames.size() == 1 ? frames.front().frame_id : -1; }
};

// qxedgesrc <props> ! <caps> ! appsink, in this process.
class Subscriber {
  public:
    Subscriber(const std::string &props, const std::string &caps);
    ~Subscriber();
    Subscriber(const Subscriber &) = delete;
    Subscriber &operator=(const Subscriber &) = delete;

    // Sets the pipeline PLAYING, as an application does; until its first
    // frame arrives the source stays in READY to PAUSED.
    GstStateChangeReturn start() { return gst_element_set_state(pipeline_, GST_STATE_PLAYING); }
    bool waitingForFirstFrame() const;
    bool pull(Received &out, std::chrono::milliseconds timeout);
    GstStateChangeReturn stop() { return gst_element_set_state(pipeline_, GST_STATE_NULL); }
    // A counter of the source's stats property.
    std::uint64_t stat(const char *name) const;

  private:
    GstElement *pipeline_ = nullptr;
    GstElement *source_ = nullptr;
    GstElement *appsink_ = nullptr;
};

// Environment for a child process: the build plug-ins, a registry of its own,
// and GST_DEBUG when the test reads the log.
std::vector<std::pair<std::string, std::string>> childEnv(const qxtest::ConfigRoot &root,
                                                          const std::string &debug = "");
// helpers/sink_pipeline on a launch line (options: see there), as a child process.
std::unique_ptr<qxtest::ChildProcess> startPipeline(const qxtest::ConfigRoot &root, const std::string &launch,
                                                    const std::vector<std::string> &options = {},
                                                    const std::string &debug = "");
// gst-launch-1.0 with these arguments, as a child process.
std::unique_ptr<qxtest::ChildProcess> startLaunch(const qxtest::ConfigRoot &root, std::vector<std::string> args);

// One publishing run: videotestsrc (smpte, moving) ! caps [! encoder] !
// qxedgesink, with the metadata of src_expected.h on every frame (frame ids
// from 0). It waits a second in READY so that subscribers started before it
// match its writers, and then until it knows `readers` readers of the frames.
struct PublisherRun {
    std::string format;
    int frames;
    std::string stream;
    std::string taggroups = srcexpect::kAllGroupsWithVideo;
    std::string contextId;
    std::string encoder; // e.g. "jpegenc": publishes encoded pictures
    int width = 320;
    int height = 240;
    std::size_t readers = 0;
    std::string source() const; // the part before qxedgesink
};
std::unique_ptr<qxtest::ChildProcess> startPublisher(const qxtest::ConfigRoot &root, const PublisherRun &run,
                                                     const std::string &debug = "");

// When pull() stops: at frame lastId, after count buffers, when the publisher
// (if given) ended and nothing came for 3 s, or when the time is up.
struct Until {
    int lastId = -1;
    std::size_t count = 0;
    std::chrono::seconds timeout = 60s;
    qxtest::ChildProcess *publisher = nullptr;
};
// The buffers of one stream (others are passed over); a buffer without a
// picture or without exactly one received frame is a failure.
std::vector<Received> pull(Subscriber &subscriber, const std::string &stream, Until until);

// What a source makes when run alone: each picture as B,G,R, or each buffer's bytes.
std::vector<cv::Mat> referenceFrames(const std::string &source);
std::vector<std::vector<unsigned char>> referenceEncoded(const std::string &source);
double meanAbsDiff(const cv::Mat &a, const cv::Mat &b);

// How often what occurs in text (a log line, say).
std::size_t countOf(const std::string &text, const std::string &what);

// Resident memory of a process, in MB ("self" for this one). Under
// AddressSanitizer freed memory waits in quarantine and every allocation
// carries red zones, so there the figure says nothing about growth.
double residentMb(const std::string &pid = "self");
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kResidentMemoryTells = false;
#else
constexpr bool kResidentMemoryTells = true;
#endif

// Subscribes with the bus library itself to the video group (separate or
// combined record) and any result groups, on the test's own domain.
class BusReader {
  public:
    BusReader(bool uni, const std::vector<std::string> &groups);
    ~BusReader();
    // Reads until every group has `expected` samples, or the publisher ended and the bus stayed quiet.
    std::map<std::string, std::vector<Pairs>> collect(qxtest::ChildProcess &publisher, std::size_t expected);

  private:
    std::shared_ptr<Edge> edge_;
    std::map<std::string, com::quorixtech::marlet::Thing::Selector> selectors_;
    std::map<std::string, std::vector<Pairs>> early_;
};

template <typename Record> Record decode(const Pairs &pairs) {
    Record record{};
    TOLVIXO::DecodeRecord(pairs, record);
    return record;
}

} // namespace elemtest
