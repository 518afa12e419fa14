// Guards the definition and properties files: shipped properties whose ids
// moved from where they are rewritten by position, a shipped port naming a tag
// group that is not shipped, broken or missing files not rejected with a
// message naming file and fault, and URIs or topics mapped to the wrong path
// or DDS topic name.

#include <filesystem>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "marlet/marlet.h"
#include "qxtest/config_root.h"

namespace {

using namespace com::quorixtech::marlet;
namespace fs = std::filesystem;
using testing::StartsWith;
using testing::ThrowsMessage;

std::string quotedAfter(const std::string &text, std::size_t from) {
    const auto open = text.find('"', from);
    return text.substr(open + 1, text.find('"', open + 1) - open - 1);
}

// Other code rewrites the thing id and the context id of the properties files
// by text position: the first string value, and the one after "contextId":.
// A port naming a tag group that is not shipped would silently fall back to
// whichever group of that name was registered last.
TEST(Registries, ShippedFilesKeepTheirLayoutAndPortsNameShippedTagGroups) {
    const std::string shipped = qxtest::sourceDir() + "/common/data_model/";
    int count = 0;
    for (const auto &file : fs::directory_iterator(shipped + "config")) {
        if (file.path().extension() != ".json") continue;
        ++count;
        JSonThingProperties props;
        ASSERT_NO_THROW(props.readPropertiesFromURI("file://" + file.path().string())) << file.path();
        std::ifstream in(file.path());
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(quotedAfter(text, text.find(':')), props.thingId()) << file.path();
        EXPECT_EQ(quotedAfter(text, text.find("\"contextId\":") + 12), props.contextId()) << file.path();
    }
    EXPECT_EQ(count, 10);

    JSonTagGroupRegistry groups;
    for (const auto &file : fs::directory_iterator(shipped + "definitions/TagGroup/com.vision.data"))
        groups.registerTagGroupsFromURI("file://" + file.path().string());
    JSonThingClassRegistry classes;
    for (const auto &file : fs::directory_iterator(shipped + "definitions/ThingClass/com.vision.data"))
        classes.registerThingClassesFromURI("file://" + file.path().string());
    for (const auto &c : classes.thingClasses())
        for (const auto *ports : {&c.inputs, &c.outputs})
            for (const auto &port : *ports)
                EXPECT_TRUE(std::any_of(groups.tagGroups().begin(), groups.tagGroups().end(),
                                        [&](const auto &g) { return g.qualifiedName() == port.tagGroup; }))
                    << c.qualifiedName() << " port " << port.name;
}

TEST(Registries, BrokenOrMissingFilesNameTheFileAndTheFault) {
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
        {[] { JSonTagGroupRegistry().registerTagGroupsFromURI("file:///nonexistent/G.json"); },
         "cannot open tag group file \"/nonexistent/G.json\" (file:///nonexistent/G.json)"},
    };
    for (const auto &[load, message] : cases)
        EXPECT_THAT(load, ThrowsMessage<ConfigError>(StartsWith(message)));
    // A file is checked whole before any of it registers.
    JSonTagGroupRegistry registry;
    EXPECT_THROW(registry.registerTagGroupsFromString(R"({"tagGroups":[{"namespace":"n","name":"ok"},{}]})"),
                 ConfigError);
    EXPECT_TRUE(registry.tagGroups().empty());
}

TEST(Registries, UrisAndTopicsMapToTheirPathsAndDdsNames) {
    EXPECT_EQ(uriToPath("file:///opt/quorix/ixo/config/Marlet.xml"), "/opt/quorix/ixo/config/Marlet.xml");
    EXPECT_EQ(uriToPath("file:/one-slash"), "file:/one-slash"); // anything else is left alone
    JSonTagGroupRegistry groups;
    groups.registerTagGroupsFromString(R"({"tagGroups":[{"namespace":"a.b","name":"C"}]})");
    EXPECT_EQ(groups.tagGroups().at(0).topic, "a.b.C"); // by default
    // Tools that watch the bus through DDS itself find the topics by these names.
    EXPECT_EQ(ddsTopicName("com.vision.data.IXOPipe"), "com/vision/data/IXOPipe");
    EXPECT_EQ(ddsTopicName("9 lives-x"), "_9_lives_x");
}

} // namespace
