// A second bus process for the cross-process tests, run in a configuration
// root. Reads the tag groups named by its arguments: a frame of more than a
// kilobyte is reported as "frame <id>" on stdout, any other sample is written
// back unchanged on DeviceInfoData. Prints "ready peer-out" once its readers
// exist, and runs until it is killed (two minutes at most).

#include <chrono>
#include <iostream>

#include "../bus_support.h"

int main(int argc, char **argv) {
    namespace m = com::quorixtech::marlet;
    using Pairs = std::vector<m::IOT_NVP>;
    try {
        m::Marlet bus = m::Marlet::getInstance("config=file://./config/Marlet.xml");
        marlettest::registerDefinitions(bus, ".");
        m::Thing in = marlettest::makeThing(bus, "VideoFrameThingIn", "peer-in");
        m::Thing out = marlettest::makeThing(bus, "DeviceInfoThingOut", "peer-out");
        std::vector<m::Thing::Selector> selectors;
        for (int i = 1; i < argc; ++i) {
            selectors.push_back(in.select(argv[i])); // any registered tag group, by name
            selectors.back().read<Pairs>(0);         // creates the reader
        }
        std::cout << "ready " << out.getId() << std::endl;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
        while (std::chrono::steady_clock::now() < deadline) {
            for (auto &selector : selectors) {
                for (const auto &sample : selector.read<Pairs>(50)) {
                    const Pairs &frame = sample.getData(); // as marlettest::frame makes them
                    if (frame.at(1).value().iotv_byte_seq().size() > 1024)
                        std::cout << "frame " << frame[0].value().iotv_uint32() << std::endl;
                    else
                        out.write("DeviceInfoData", frame);
                }
            }
        }
        return 0;
    } catch (const std::exception &e) {
        std::cerr << "peer failed: " << e.what() << std::endl;
        return 1;
    }
}
