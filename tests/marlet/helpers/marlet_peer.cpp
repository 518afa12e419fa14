// A second bus process for the cross-process tests. Run in a configuration
// root: reads VideoFrameData (or the tag group named by its argument) and
// writes every sample back unchanged on DeviceInfoData, until a sample holding
// a pair named "stop" arrives.
// Prints "ready <thing id>" once its reader exists. Frames whose first pair is
// "burst_id" are counted instead of echoed; on stop it prints
// "big frames <n> in order" or "big frames <n> out of order".

#include <chrono>
#include <iostream>

#include "../bus_support.h"

int main(int argc, char **argv) {
    namespace m = com::quorixtech::marlet;
    try {
        const std::string group = argc > 1 ? argv[1] : "VideoFrameData";
        m::Marlet bus = m::Marlet::getInstance("config=file://./config/Marlet.xml");
        marlettest::registerDefinitions(bus, ".");
        m::Thing in = marlettest::makeThing(bus, group.substr(0, group.size() - 4) + "ThingIn", "peer-in", "default");
        m::Thing out = marlettest::makeThing(bus, "DeviceInfoThingOut", "peer-out", "default");
        m::Thing::Selector selector = in.select(group);
        selector.read<std::vector<m::IOT_NVP>>(0); // creates the reader
        std::cout << "ready " << out.getId() << std::endl;

        std::uint32_t bigFrames = 0;
        bool inOrder = true;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (std::chrono::steady_clock::now() < deadline) {
            for (const auto &sample : selector.read<std::vector<m::IOT_NVP>>(200)) {
                const auto &pairs = sample.getData();
                if (!pairs.empty() && pairs[0].name() == "stop") {
                    std::cout << "big frames " << bigFrames << (inOrder ? " in order" : " out of order") << std::endl;
                    out.close();
                    in.close();
                    bus.close();
                    return 0;
                }
                if (!pairs.empty() && pairs[0].name() == "burst_id") {
                    const std::uint32_t id = pairs[0].value().iotv_uint32();
                    inOrder = inOrder && id == bigFrames + 1;
                    ++bigFrames;
                    continue;
                }
                out.write("DeviceInfoData", pairs);
                std::cout << "echoed " << sample.getSequence() << " from " << sample.getSourceId() << std::endl;
            }
        }
        std::cerr << "no stop sample within the deadline" << std::endl;
        return 2;
    } catch (const std::exception &e) {
        std::cerr << "peer failed: " << e.what() << std::endl;
        return 1;
    }
}
