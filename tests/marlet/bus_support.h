#pragma once
// Opening the bus of a test's configuration root with the shipped definitions,
// shared by the in-process tests and the peer program of the cross-process ones.

#include <string>
#include <vector>

#include "marlet/marlet.h"

namespace marlettest {

namespace m = com::quorixtech::marlet;

// Registers every shipped tag group except the pipe one (which would redefine
// the video group) and every thing class, found under root.
inline void registerDefinitions(m::Marlet &bus, const std::string &root) {
    const std::string groups = root + "/definitions/TagGroup/com.vision.data/";
    m::JSonTagGroupRegistry tagGroups;
    for (const char *f : {"VideoFrameTagGroup.json", "DeviceInfoTagGroup.json", "ClassificationTagGroup.json",
                          "DetectionBoxTagGroup.json", "SegmentationTagGroup.json"}) {
        tagGroups.registerTagGroupsFromURI("file://" + groups + f);
    }
    bus.addTagGroupRegistry(tagGroups);

    const std::string classes = root + "/definitions/ThingClass/com.vision.data/";
    m::JSonThingClassRegistry thingClasses;
    for (const char *kind : {"VideoFrame", "DeviceInfo", "Classification", "DetectionBox", "Segmentation"}) {
        for (const char *dir : {"Out", "In"}) {
            thingClasses.registerThingClassesFromURI("file://" + classes + kind + "Thing" + dir + "Class.json");
        }
    }
    bus.addThingClassRegistry(thingClasses);
}

inline m::Thing makeThing(m::Marlet &bus, const std::string &thingClass, const std::string &id,
                          const std::string &contextId) {
    m::JSonThingProperties props;
    props.readPropertiesFromString(R"({"thingId":")" + id + R"(","name":"test","thingClass":"com.vision.data:)" +
                                   thingClass + R"(","contextId":")" + contextId + R"("})");
    return bus.createThing(props);
}

inline std::vector<m::IOT_NVP> frame(std::uint32_t frameId, std::size_t bytes) {
    std::vector<m::IOT_NVP> pairs(3);
    pairs[0].name("frame_id");
    pairs[0].value().iotv_uint32(frameId);
    std::vector<std::uint8_t> data(bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        data[i] = static_cast<std::uint8_t>((i * 31 + frameId) >> 3);
    pairs[1].name("data");
    pairs[1].value().iotv_byte_seq(std::move(data));
    pairs[2].name("format");
    pairs[2].value().iotv_string("com.vision.models.PIXEL_FORMAT_BGR8");
    return pairs;
}

} // namespace marlettest
