#pragma once
// Opening the bus of a test's configuration root with the shipped definitions,
// shared by the in-process tests and the peer program of the cross-process ones.

#include <filesystem>
#include <string>
#include <vector>

#include "marlet/marlet.h"
#include "pair_builders.h"

namespace marlettest {

namespace m = com::quorixtech::marlet;

// Registers every shipped thing class and tag group under root except the pipe
// group, which would redefine the video group.
inline void registerDefinitions(m::Marlet &bus, const std::string &root) {
    m::JSonTagGroupRegistry tagGroups;
    for (const auto &file : std::filesystem::directory_iterator(root + "/definitions/TagGroup/com.vision.data"))
        if (file.path().filename() != "IXOPipeTagGroup.json")
            tagGroups.registerTagGroupsFromURI("file://" + file.path().string());
    bus.addTagGroupRegistry(tagGroups);
    m::JSonThingClassRegistry thingClasses;
    for (const auto &file : std::filesystem::directory_iterator(root + "/definitions/ThingClass/com.vision.data"))
        thingClasses.registerThingClassesFromURI("file://" + file.path().string());
    bus.addThingClassRegistry(thingClasses);
}

inline m::Thing makeThing(m::Marlet &bus, const std::string &thingClass, const std::string &id,
                          const std::string &contextId) {
    m::JSonThingProperties props;
    props.readPropertiesFromString(R"({"thingId":")" + id + R"(","name":"test","thingClass":"com.vision.data:)" +
                                   thingClass + R"(","contextId":")" + contextId + R"("})");
    return bus.createThing(props);
}

// A frame record whose every byte depends on its id, so a mix-up shows.
inline std::vector<m::IOT_NVP> frame(std::uint32_t frameId, std::size_t bytes) {
    pairtest::ByteSeq data(bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        data[i] = static_cast<std::uint8_t>((i * 31 + frameId) >> 3);
    return {pairtest::u32("frame_id", frameId), pairtest::bytes("data", std::move(data)),
            pairtest::str("format", "com.vision.models.PIXEL_FORMAT_BGR8")};
}

} // namespace marlettest
