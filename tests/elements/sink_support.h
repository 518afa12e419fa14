#pragma once
// Test side of the qxedgesink tests: the publishing pipeline runs as a child
// process (helpers/sink_pipeline), this process subscribes with the bus
// library and compares what arrived with what the same input must give.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
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

using srctest::childEnv;
using srctest::initGst;
using srctest::startPipeline;

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
            const std::string kind = group.substr(0, group.size() - 4); // "ClassificationData" -> "Classification"
            edge_->AddThing(group, "config/" + kind + "ThingInProperties.json",
                            "definitions/ThingClass/com.vision.data/" + kind + "ThingInClass.json",
                            {"definitions/TagGroup/com.vision.data/" + kind + "TagGroup.json"});
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

template <typename Record> Record decode(const Pairs &pairs) {
    Record record{};
    TOLVIXO::DecodeRecord(pairs, record);
    return record;
}

} // namespace sinktest
