// Adds things for a list of tag-group names in a process of its own, because
// an unknown name ends the process and the test needs to see how far it got.
//
//   edge_add_things out|in name...
//
// Prints "added <n> things, <m> readers" when the whole list went through.

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "edge_sample_records.h"
#include "modelloader.h"

namespace {

// Takes whatever the readers deliver; nothing is published in this process.
struct DiscardingReceiver {
    void callback(const TOLVIXO::FrameInfo &) {}
    void callback(const TOLVIXO::DeviceInfo &) {}
    void callback(const TOLVIXO::Information<TOLVIXO::ClassificationData> &) {}
    void callback(const TOLVIXO::Information<TOLVIXO::DetectionBoxData> &) {}
    void callback(const TOLVIXO::SegmentInfo &) {}
    void callback(const TOLVIXO::UniInfo &) {}
};

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::cerr << "usage: edge_add_things out|in name..." << std::endl;
        return 64;
    }
    const bool out = std::string(argv[1]) == "out";
    std::vector<std::string> names(argv + 2, argv + argc);
    try {
        namespace s = edge_samples;
        auto edge = out ? Edge::create(s::kConfig, s::kVideoOutProperties, s::kVideoOutClass, {s::kVideoTagGroup}, "")
                        : Edge::create(s::kConfig, s::kVideoInProperties, s::kVideoInClass, {s::kVideoTagGroup}, "");
        if (!edge) return 2;
        DiscardingReceiver receiver;
        if (out) {
            ModelLoader::addThingOutByProp(edge, names);
        } else {
            ModelLoader::addThingsIn(edge, names, receiver, "");
        }
        std::cout << "added " << edge->things.size() << " things, " << edge->readThreads.size() << " readers"
                  << std::endl;
        edge->deinit();
        return 0;
    } catch (const std::exception &e) {
        std::cerr << "edge_add_things: " << e.what() << std::endl;
        return 1;
    }
}
