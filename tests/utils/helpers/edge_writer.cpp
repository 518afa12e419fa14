// Publishes the sample records from a process of its own, the way the sink
// does: its own Edge on the shipped files under the working directory, one
// outgoing thing per tag group. It repeats every record until a file named
// "stop" appears in the working directory, so the reader decides when it has
// seen enough and discovery time never matters.
//
//   edge_writer separate <context-id>   the five separate tag groups
//   edge_writer uni <context-id>        the combined record under "VideoFrameData"

#include <chrono>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "edge_sample_records.h"
#include "modelloader.h"

namespace {

bool stopFileExists() { return ::access("stop", F_OK) == 0; }

int run(const std::string &mode, const std::string &contextId) {
    namespace s = edge_samples;
    const bool uni = mode == "uni";
    auto edge = Edge::create(s::kConfig, s::kVideoOutProperties, s::kVideoOutClass,
                             {uni ? s::kPipeTagGroup : s::kVideoTagGroup}, contextId);
    if (!edge) return 2;

    std::vector<std::pair<std::string, std::vector<com::quorixtech::iot::IOT_NVP>>> samples;
    if (uni) {
        samples.emplace_back("VideoFrameData", s::uni().Encode());
    } else {
        std::vector<std::string> names = {"VideoFrameData", "DeviceInfoData", "ClassificationData", "DetectionBoxData",
                                          "SegmentationData"};
        ModelLoader::addThingOutByProp(edge, names);
        samples.emplace_back("VideoFrameData", s::frame(17).Encode());
        samples.emplace_back("DeviceInfoData", s::device().Encode());
        samples.emplace_back("ClassificationData", s::classification().Encode());
        samples.emplace_back("DetectionBoxData", s::detection().Encode());
        samples.emplace_back("SegmentationData", s::segmentation().Encode());
    }
    std::cout << "writer ready, things " << edge->things.size() << std::endl;

    // Bounded so that a reader that died does not leave this process behind.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    int rounds = 0;
    while (!stopFileExists() && std::chrono::steady_clock::now() < giveUp) {
        for (const auto &[name, pairs] : samples)
            edge->writeSample(name, pairs);
        ++rounds;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::cout << "writer done after " << rounds << " rounds" << std::endl;
    edge->deinit();
    return stopFileExists() ? 0 : 3;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::cerr << "usage: edge_writer separate|uni [context-id]" << std::endl;
        return 64;
    }
    try {
        return run(argv[1], argc > 2 ? argv[2] : "");
    } catch (const std::exception &e) {
        std::cerr << "edge_writer: " << e.what() << std::endl;
        return 1;
    }
}
