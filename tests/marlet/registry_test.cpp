// Guards the bus configuration, definition and properties files: broken or
// missing files not rejected with a message naming file and fault, part of a
// broken file registered, and topics mapped to the wrong DDS topic name.

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "marlet/marlet.h"
#include "qxtest/config_root.h"

namespace {

using namespace com::quorixtech::marlet;

TEST(Registries, BrokenFilesFailWholeNamingFileAndFaultAndTopicsGetTheirDdsNames) {
    const qxtest::ConfigRoot root;
    const std::string missing = root.file("Bus.xml"), bad = root.file("Bad.xml");
    root.writeFile("Bad.xml", R"(<CycloneDDS><Domain Id="seven"/></CycloneDDS>)");
    const auto bus = [](std::string args) { return [=] { Marlet::getInstance(args); }; };
    const auto groups = [](const char *text) {
        return [=] { JSonTagGroupRegistry().registerTagGroupsFromString(text, "broken.json"); };
    };
    const auto thingClass = [](const char *text) {
        return [=] { JSonThingClassRegistry().registerThingClassesFromString(text, "broken.json"); };
    };
    const auto properties = [](const char *text) {
        return [=] { JSonThingProperties().readPropertiesFromString(text, "broken.json"); };
    };
    const std::pair<std::function<void()>, std::string> cases[] = {
        {bus("config=file://" + missing), "cannot read bus configuration file \"" + missing + "\""},
        {bus("file://" + missing), "Marlet::getInstance expects \"config=<file URI>\", got \"file://" + missing + "\""},
        {bus("config=file://" + bad),
         "bus configuration file \"" + bad + "\": Domain Id \"seven\" is not a number from 0 to 232 or \"any\""},
        {groups(R"({"tagGroups": [)"), "broken.json: JSON parse error at byte 16: "},
        {groups("[1,2]"), "broken.json: the document is not a JSON object"},
        {groups(R"({"tagGroups": []})"), "broken.json: no tag groups in \"tagGroups\""},
        {groups(R"({"tagGroups":[{"namespace":"n"}]})"), "broken.json: missing key \"name\" in tagGroups[0]"},
        {groups(R"({"tagGroups":[{"namespace":"n","name":5}]})"),
         "broken.json: key \"name\" in tagGroups[0] is not a string"},
        {groups(R"({"tagGroups":[{"namespace":"n","name":"x","fields":[{"name":"f","kind":"iotv_double"}]}]})"),
         "broken.json: unknown field kind \"iotv_double\""},
        {groups(R"({"tagGroups":[{"namespace":"n","name":"x","fields":{}}]})"),
         "broken.json: key \"fields\" in tagGroups[0] is not an array"},
        {groups(R"({"tagGroups":[{"namespace":"n","name":"x","qos":{"history":"all"}}]})"),
         "broken.json: key \"history\" in \"qos\" of n:x is \"all\", not one of \"keep-last\", \"keep-all\""},
        {groups(R"({"tagGroups":[{"namespace":"n","name":"x","qos":{"depth":0}}]})"),
         "broken.json: key \"depth\" in \"qos\" of n:x is not a whole number from 1 to 1000000"},
        {thingClass(R"({"namespace":"n","name":"x","inputs":[{"name":"i","tagGroup":"plain"}]})"),
         "broken.json: tagGroup \"plain\" of inputs[0] is not of the form namespace:name"},
        {properties(R"({"thingId":"","thingClass":"n:c"})"), "broken.json: empty \"thingId\""},
        {properties(R"({"thingId":"t","thingClass":"c"})"),
         "broken.json: thingClass \"c\" is not of the form namespace:name"},
        {[] { JSonTagGroupRegistry().registerTagGroupsFromURI("/nonexistent/G.json"); }, // a path, as it is not file://
         "cannot open tag group file \"/nonexistent/G.json\" (/nonexistent/G.json)"},
    };
    for (const auto &[load, message] : cases)
        EXPECT_THAT(load, testing::ThrowsMessage<ConfigError>(testing::StartsWith(message)));
    // A file is checked whole before any of it registers.
    JSonTagGroupRegistry registry;
    EXPECT_THROW(registry.registerTagGroupsFromString(R"({"tagGroups":[{"namespace":"n","name":"ok"},{}]})"),
                 ConfigError);
    EXPECT_TRUE(registry.tagGroups().empty());
    registry.registerTagGroupsFromString(R"({"tagGroups":[{"namespace":"9 lives","name":"x-C"}]})");
    // The topic by default, and the name tools that watch the bus through DDS itself find it by.
    EXPECT_EQ(registry.tagGroups().at(0).topic, "9 lives.x-C");
    EXPECT_EQ(ddsTopicName(registry.tagGroups().at(0).topic), "_9_lives/x_C");
}

} // namespace
