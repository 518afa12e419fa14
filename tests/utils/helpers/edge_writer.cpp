// Publishes the five separate sample records, in the flow given, from a process
// of its own as the sink does (one outgoing thing per tag group), until a file
// named "stop" appears in the working directory: the reader decides when it has
// seen enough, so discovery time never matters. Usage: edge_writer <context-id>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "edge_sample_records.h"
#include "modelloader.h"

int main(int argc, char **argv) {
    namespace s = edge_samples;
    auto edge = Edge::create(s::kConfig, s::kVideoOutProperties, s::kVideoOutClass, {s::kVideoTagGroup},
                             argc > 1 ? argv[1] : "");
    if (!edge) return 2;
    // The video group is in the list as the elements pass it: it has no thing of its own.
    std::vector<std::string> names = {"DeviceInfoData", "VideoFrameData", "ClassificationData", "DetectionBoxData",
                                      "SegmentationData"};
    ModelLoader::addThingOutByProp(edge, names);
    const std::vector<std::pair<std::string, std::vector<com::quorixtech::iot::IOT_NVP>>> samples = {
        {"VideoFrameData", s::frame(17).Encode()},
        {"DeviceInfoData", s::device().Encode()},
        {"ClassificationData", s::classification().Encode()},
        {"DetectionBoxData", s::detection().Encode()},
        {"SegmentationData", s::segmentation().Encode()}};
    // Bounded so that a reader that died does not leave this process behind;
    // an exception ends the process with its message on standard error.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while (::access("stop", F_OK) != 0 && std::chrono::steady_clock::now() < giveUp) {
        for (const auto &[name, pairs] : samples)
            edge->writeSample(name, pairs);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    edge->deinit();
    return ::access("stop", F_OK) == 0 ? 0 : 3;
}
