// Publisher and subscriber of full-HD frames through the bus library, the
// "ours" half of throughput.sh. Run in a configuration root.
//   marlet_throughput pub <seconds> <rateHz, 0 = as fast as possible> <bytes>
//   marlet_throughput sub <max seconds>
// The subscriber stops 3 s after the last sample and prints "received <n> <bytes>".

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "marlet/marlet.h"

namespace m = com::quorixtech::marlet;
using Clock = std::chrono::steady_clock;

namespace {

m::Marlet openBus() {
    m::Marlet bus = m::Marlet::getInstance("config=file://./config/Marlet.xml");
    m::JSonTagGroupRegistry groups;
    groups.registerTagGroupsFromURI("file://./definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json");
    bus.addTagGroupRegistry(groups);
    m::JSonThingClassRegistry classes;
    classes.registerThingClassesFromURI("file://./definitions/ThingClass/com.vision.data/VideoFrameThingOutClass.json");
    classes.registerThingClassesFromURI("file://./definitions/ThingClass/com.vision.data/VideoFrameThingInClass.json");
    bus.addThingClassRegistry(classes);
    return bus;
}

m::Thing thing(m::Marlet &bus, const char *propertiesFile) {
    m::JSonThingProperties props;
    props.readPropertiesFromURI(std::string("file://./config/") + propertiesFile);
    return bus.createThing(props);
}

int publish(double seconds, double rateHz, std::size_t bytes) {
    m::Marlet bus = openBus();
    m::Thing out = thing(bus, "VideoFrameThingOutProperties.json");
    std::vector<m::IOT_NVP> frame(2);
    frame[0].name("frame_id");
    frame[1].name("data");
    frame[1].value().iotv_byte_seq(std::vector<std::uint8_t>(bytes, 0x5a));
    out.write("VideoFrameData", frame); // creates the writer, so discovery runs during the pause
    // Long enough for a secured bus to authenticate the peers and exchange keys.
    std::this_thread::sleep_for(std::chrono::seconds(2));

    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::uint32_t n = 0;
    while (Clock::now() < end) {
        frame[0].value().iotv_uint32(n++);
        out.write("VideoFrameData", frame);
        if (rateHz > 0) {
            std::this_thread::sleep_until(
                start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(n / rateHz)));
        }
    }
    std::cout << "published " << n << std::endl;
    out.close();
    bus.close();
    return 0;
}

int subscribe(double maxSeconds) {
    m::Marlet bus = openBus();
    m::Thing in = thing(bus, "VideoFrameThingInProperties.json");
    auto selector = in.select("VideoFrameData");
    selector.batch(8);
    selector.read<std::vector<m::IOT_NVP>>(0);
    std::cout << "ready" << std::endl;
    const auto end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(maxSeconds));
    std::uint64_t count = 0, total = 0;
    auto last = Clock::now();
    while (Clock::now() < end) {
        auto got = selector.read<std::vector<m::IOT_NVP>>(500);
        for (const auto &s : got) {
            // The warm-up sample has no frame id value; only frames count.
            if (s.getData().at(0).value().kind() == com::quorixtech::iot::IotKind::none) continue;
            ++count;
            total += s.getData().at(1).value().iotv_byte_seq().size();
        }
        if (!got.empty()) last = Clock::now();
        if (count > 0 && Clock::now() - last > std::chrono::seconds(3)) break;
    }
    std::cout << "received " << count << " " << total << std::endl;
    in.close();
    bus.close();
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "pub" && argc == 5)
            return publish(std::atof(argv[2]), std::atof(argv[3]), std::strtoull(argv[4], nullptr, 10));
        if (mode == "sub" && argc == 3) return subscribe(std::atof(argv[2]));
        std::cerr << "usage: marlet_throughput pub <seconds> <rateHz> <bytes> | sub <max seconds>" << std::endl;
        return 2;
    } catch (const std::exception &e) {
        std::cerr << "marlet_throughput: " << e.what() << std::endl;
        return 1;
    }
}
