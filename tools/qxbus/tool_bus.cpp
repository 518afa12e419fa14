#include "tool_bus.h"

#include <random>
#include <sstream>

#include <nlohmann/json.hpp>

#include "config_root.h"

namespace marlet = com::quorixtech::marlet;

namespace qxbus {

namespace {

constexpr const char *kToolNamespace = "com.vision.tools";

std::string randomHex(int digits) {
    std::random_device device;
    std::uniform_int_distribution<int> nibble(0, 15);
    std::string out;
    for (int i = 0; i < digits; ++i)
        out += "0123456789abcdef"[nibble(device)];
    return out;
}

} // namespace

std::string portName(const TagGroupEntry &group) { return group.definition.name; }

ToolBus::ToolBus(const std::string &root)
    : bus_(marlet::Marlet::getInstance("config=" + fileUri(root, kBusConfigFile))), instance_(randomHex(12)) {}

ToolBus::~ToolBus() {
    for (auto &thing : things_) {
        try {
            thing.close();
        } catch (const std::exception &) {
            // Closing on the way out: nothing useful is left to do with the error.
        }
    }
    bus_.close();
}

marlet::Thing ToolBus::makeThing(const TagGroupEntry &group, PortDirection direction, const std::string &flow) {
    marlet::JSonTagGroupRegistry groups;
    groups.registerTagGroupsFromURI(group.fileUri);
    bus_.addTagGroupRegistry(groups);

    const std::string suffix = instance_ + "-" + std::to_string(++made_);
    const std::string className =
        "QxBus" + std::string(direction == PortDirection::input ? "In" : "Out") + "-" + suffix;
    nlohmann::ordered_json port = {{"name", portName(group)}, {"tagGroup", group.definition.qualifiedName()}};
    nlohmann::ordered_json thingClass = {{"namespace", kToolNamespace},
                                         {"name", className},
                                         {"version", "1.0"},
                                         {"description", "qxbus command-line tool"},
                                         {"inputs", nlohmann::ordered_json::array()},
                                         {"outputs", nlohmann::ordered_json::array()}};
    thingClass[direction == PortDirection::input ? "inputs" : "outputs"].push_back(port);
    marlet::JSonThingClassRegistry classes;
    classes.registerThingClassesFromString(thingClass.dump(), "qxbus thing class");
    bus_.addThingClassRegistry(classes);

    // thingId first: the properties format keeps the id as the first string value.
    nlohmann::ordered_json properties = {{"thingId", "qxbus-" + suffix},
                                         {"thingClass", std::string(kToolNamespace) + ":" + className},
                                         {"contextId", flow},
                                         {"name", "qxbus"}};
    marlet::JSonThingProperties thingProperties;
    thingProperties.readPropertiesFromString(properties.dump(), "qxbus thing properties");
    things_.push_back(bus_.createThing(thingProperties));
    return things_.back();
}

std::string defaultFlow(const std::string &root, const TagGroupEntry &group) {
    std::string stem = group.definition.name;
    const std::string data = "Data";
    if (stem.size() > data.size() && stem.compare(stem.size() - data.size(), data.size(), data) == 0)
        stem.resize(stem.size() - data.size());
    try {
        marlet::JSonThingProperties properties;
        properties.readPropertiesFromURI(fileUri(root, "config/" + stem + "ThingOutProperties.json"));
        return properties.contextId();
    } catch (const std::exception &) {
        return ""; // no plug-in properties for this group: publish on the empty flow
    }
}

} // namespace qxbus
