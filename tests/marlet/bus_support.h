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

// A thing of a shipped class in the default flow.
inline m::Thing makeThing(m::Marlet &bus, const std::string &thingClass, const std::string &id) {
    m::JSonThingProperties props;
    props.readPropertiesFromString(R"({"thingId":")" + id + R"(","name":"test","thingClass":"com.vision.data:)" +
                                   thingClass + R"(","contextId":"default"})");
    return bus.createThing(props);
}

// A frame record of `bytes` bytes.
inline std::vector<m::IOT_NVP> frame(std::uint32_t frameId, std::size_t bytes) {
    return {pairtest::u32("frame_id", frameId), pairtest::bytes("data", pairtest::ByteSeq(bytes, 0x5a))};
}

} // namespace marlettest
