#pragma once
// Test side of the qxedgesink tests: the publishing pipeline runs as a child
// process (helpers/sink_pipeline), this process subscribes with the bus
// library and compares what arrived with what the same input must give.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "frame_information.h"
#include "modelloader.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "src_support.h"
#include "uni_information.h"

namespace sinktest {

using namespace std::chrono_literals;
using Pairs = std::vector<com::quorixtech::iot::IOT_NVP>;

using srctest::initGst;

// The child's own registry file, and GST_DEBUG when the test reads the log.
inline std::vector<std::pair<std::string, std::string>> childEnv(const qxtest::ConfigRoot &root,
                                                                 const std::string &debug = "") {
    auto env = srctest::childEnv(root, "sink");
    if (!debug.empty()) {
        env.emplace_back("GST_DEBUG", debug);
        env.emplace_back("GST_DEBUG_NO_COLOR", "1");
    }
    return env;
}

// The publishing pipeline; it waits in READY until go() so the subscriber is
// already on the bus when the first frame is written.
class Publisher {
  public:
    Publisher(const qxtest::ConfigRoot &root, const std::string &launch, std::vector<std::string> options = {},
              const std::string &debug = "")
        : root_(root) {
        std::vector<std::string> argv{std::string(QX_TEST_HELPER_DIR) + "/sink_pipeline", launch};
        argv.insert(argv.end(), options.begin(), options.end());
        argv.push_back("--go");
        argv.push_back(root.file("go"));
        child_ = std::make_unique<qxtest::ChildProcess>(argv, root.path(), childEnv(root, debug));
    }
    bool ready() { return child_->waitForOutput("READY", 60s); }
    // Discovery between the two processes needs a moment on loopback; the
    // frames carry ids, so a late match shows up as missing leading frames.
    void go() {
        std::this_thread::sleep_for(1500ms);
        root_.writeFile("go", "go");
    }
    qxtest::ChildProcess &child() { return *child_; }

  private:
    const qxtest::ConfigRoot &root_;
    std::unique_ptr<qxtest::ChildProcess> child_;
};

struct GroupFiles {
    const char *properties;
    const char *thingClass;
    const char *tagGroup;
};

inline GroupFiles inFilesOf(const std::string &group) {
    static const std::map<std::string, GroupFiles> files = {
        {"DeviceInfoData",
         {"config/DeviceInfoThingInProperties.json",
          "definitions/ThingClass/com.vision.data/DeviceInfoThingInClass.json",
          "definitions/TagGroup/com.vision.data/DeviceInfoTagGroup.json"}},
        {"ClassificationData",
         {"config/ClassificationThingInProperties.json",
          "definitions/ThingClass/com.vision.data/ClassificationThingInClass.json",
          "definitions/TagGroup/com.vision.data/ClassificationTagGroup.json"}},
        {"DetectionBoxData",
         {"config/DetectionBoxThingInProperties.json",
          "definitions/ThingClass/com.vision.data/DetectionBoxThingInClass.json",
          "definitions/TagGroup/com.vision.data/DetectionBoxTagGroup.json"}},
        {"SegmentationData",
         {"config/SegmentationThingInProperties.json",
          "definitions/ThingClass/com.vision.data/SegmentationThingInClass.json",
          "definitions/TagGroup/com.vision.data/SegmentationTagGroup.json"}},
    };
    return files.at(group);
}

// Subscribes to the video group (separate or combined record) and any of the
// four result groups, in this process, on the test's own domain.
class BusReader {
  public:
    BusReader(bool uni, const std::vector<std::string> &groups) {
        const std::string videoTagGroup = uni ? "definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"
                                              : "definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json";
        edge_ = Edge::create("config/Marlet.xml", "config/VideoFrameThingInProperties.json",
                             "definitions/ThingClass/com.vision.data/VideoFrameThingInClass.json", {videoTagGroup}, "");
        if (!edge_) throw std::runtime_error("reader session could not be created");
        selectors_["VideoFrameData"] = edge_->thing.select("VideoFrameData").batch(64);
        for (const std::string &group : groups) {
            if (group == "VideoFrameData") continue;
            const GroupFiles files = inFilesOf(group);
            edge_->AddThing(group, files.properties, files.thingClass, {files.tagGroup});
            selectors_[group] = edge_->things.at(group).select(group).batch(64);
        }
        // Readers are opened by the first read; open them now so that the
        // publisher finds them when it starts.
        for (auto &[name, selector] : selectors_) {
            for (auto &sample : selector.read<Pairs>(1)) {
                early_[name].push_back(sample.getData());
            }
        }
    }
    ~BusReader() {
        if (edge_) edge_->deinit();
    }

    // Reads until every group has `expected` samples, or the publisher has
    // ended and the bus stays quiet for a pass.
    std::map<std::string, std::vector<Pairs>> collect(qxtest::ChildProcess &publisher, std::size_t expected) {
        std::map<std::string, std::vector<Pairs>> received = early_;
        const auto deadline = std::chrono::steady_clock::now() + 90s;
        bool quietAfterExit = false;
        while (!quietAfterExit && std::chrono::steady_clock::now() < deadline) {
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

  private:
    std::shared_ptr<Edge> edge_;
    std::map<std::string, com::quorixtech::marlet::Thing::Selector> selectors_;
    std::map<std::string, std::vector<Pairs>> early_;
};

// What videotestsrc gives for the launch fragment, one entry per frame: the
// B,G,R picture OpenCV makes of raw frames, or the encoded bytes as they are.
inline std::vector<std::vector<unsigned char>> referenceFrames(const std::string &sourceAndCaps, bool encoded) {
    initGst();
    const std::string description = sourceAndCaps + " ! appsink name=out sync=false";
    GstElement *pipeline = gst_parse_launch(description.c_str(), nullptr);
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::vector<std::vector<unsigned char>> frames;
    while (GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 20 * GST_SECOND)) {
        GstBuffer *buffer = gst_sample_get_buffer(sample);
        if (encoded) {
            std::vector<unsigned char> bytes(gst_buffer_get_size(buffer));
            gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
            frames.push_back(std::move(bytes));
            gst_sample_unref(sample);
            continue;
        }
        const cv::Mat bgr = srctest::toBgr(buffer, gst_sample_get_caps(sample));
        frames.emplace_back(bgr.data, bgr.data + bgr.total() * bgr.elemSize());
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    return frames;
}

template <typename Record> Record decode(const Pairs &pairs) {
    Record record{};
    TOLVIXO::DecodeRecord(pairs, record);
    return record;
}

} // namespace sinktest
