#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "marlet/marlet.h"
#include "qxtest/config_root.h"

namespace {

using namespace com::quorixtech::marlet;
namespace fs = std::filesystem;

std::string shipped(const std::string &relative) { return qxtest::sourceDir() + "/common/data_model/" + relative; }

std::string readText(const std::string &path) {
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(Registries, EveryShippedDefinitionLoads) {
    JSonTagGroupRegistry groups;
    for (const auto &e : fs::directory_iterator(shipped("definitions/TagGroup/com.vision.data"))) {
        SCOPED_TRACE(e.path().string());
        EXPECT_NO_THROW(groups.registerTagGroupsFromURI("file://" + e.path().string()));
    }
    EXPECT_EQ(groups.tagGroups().size(), 6u);

    JSonThingClassRegistry classes;
    for (const auto &e : fs::directory_iterator(shipped("definitions/ThingClass/com.vision.data"))) {
        SCOPED_TRACE(e.path().string());
        EXPECT_NO_THROW(classes.registerThingClassesFromURI("file://" + e.path().string()));
    }
    EXPECT_EQ(classes.thingClasses().size(), 10u);

    // Every port names a tag group that is shipped.
    for (const auto &c : classes.thingClasses()) {
        for (const auto *ports : {&c.inputs, &c.outputs}) {
            for (const auto &p : *ports) {
                const bool known = std::any_of(groups.tagGroups().begin(), groups.tagGroups().end(),
                                               [&](const auto &g) { return g.qualifiedName() == p.tagGroup; });
                EXPECT_TRUE(known) << c.qualifiedName() << " port " << p.name << " -> " << p.tagGroup;
            }
        }
    }
}

// Other code rewrites the thing id and the context id of these files by text
// position, so their layout is part of the contract.
TEST(Registries, ShippedPropertiesKeepTheLayoutThatIsRewrittenByPosition) {
    int count = 0;
    for (const auto &e : fs::directory_iterator(shipped("config"))) {
        if (e.path().extension() != ".json") continue;
        ++count;
        SCOPED_TRACE(e.path().string());
        const std::string text = readText(e.path().string());
        JSonThingProperties props;
        ASSERT_NO_THROW(props.readPropertiesFromURI("file://" + e.path().string()));
        EXPECT_TRUE(props.valid());
        // The first string value after the first ':' is the thing id.
        const auto colon = text.find(':');
        const auto open = text.find('"', colon);
        const auto close = text.find('"', open + 1);
        EXPECT_EQ(text.substr(open + 1, close - open - 1), props.thingId());
        const auto key = text.find("\"contextId\":");
        ASSERT_NE(key, std::string::npos);
        const auto valueOpen = text.find('"', key + 12);
        EXPECT_EQ(text.substr(valueOpen + 1, text.find('"', valueOpen + 1) - valueOpen - 1), props.contextId());
    }
    EXPECT_EQ(count, 10);
}

TEST(Registries, PipeGroupRedefinesTheVideoGroupOnItsOwnTopic) {
    JSonTagGroupRegistry groups;
    groups.registerTagGroupsFromURI("file://" + shipped("definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"));
    ASSERT_EQ(groups.tagGroups().size(), 1u);
    const auto &g = groups.tagGroups()[0];
    EXPECT_EQ(g.qualifiedName(), "com.vision.data:VideoFrameData");
    EXPECT_EQ(g.topic, "com.vision.data.IXOPipe");
    ASSERT_EQ(g.fields.size(), 2u);
    EXPECT_EQ(g.fields[0].name, "VideoList");
    EXPECT_EQ(g.fields[1].kind, com::quorixtech::iot::IotKind::iotv_nvp_seq);
}

TEST(Registries, TopicDefaultsToNamespaceDotName) {
    JSonTagGroupRegistry groups;
    groups.registerTagGroupsFromString(R"({"tagGroups":[{"namespace":"a.b","name":"C"}]})");
    EXPECT_EQ(groups.tagGroups().at(0).topic, "a.b.C");
}

struct BadFileCase {
    const char *label;
    const char *json;
    const char *fragment;
};

void expectConfigErrors(const std::vector<BadFileCase> &cases,
                        const std::function<void(const std::string &, const std::string &)> &load) {
    for (const auto &c : cases) {
        SCOPED_TRACE(c.label);
        try {
            load(c.json, "file://./broken.json");
            ADD_FAILURE() << "no ConfigError";
        } catch (const ConfigError &e) {
            const std::string what = e.what();
            EXPECT_NE(what.find("file://./broken.json"), std::string::npos) << what;
            EXPECT_NE(what.find(c.fragment), std::string::npos) << what;
        }
    }
}

TEST(Registries, BrokenTagGroupFilesNameTheFileAndTheFault) {
    JSonTagGroupRegistry r;
    expectConfigErrors(
        {
            {"not json", R"({"tagGroups": [)", "JSON parse error at byte"},
            {"not an object", R"([1,2])", "not a JSON object"},
            {"no groups", R"({"tagGroups": []})", "no tag groups"},
            {"missing name", R"({"tagGroups":[{"namespace":"n"}]})", "missing key \"name\""},
            {"wrong type", R"({"tagGroups":[{"namespace":"n","name":5}]})", "\"name\" in tagGroups[0] is not a string"},
            {"bad kind", R"({"tagGroups":[{"namespace":"n","name":"x","fields":[{"name":"f","kind":"iotv_double"}]}]})",
             "unknown field kind \"iotv_double\""},
            {"fields not array", R"({"tagGroups":[{"namespace":"n","name":"x","fields":{}}]})", "not an array"},
        },
        [&](const std::string &j, const std::string &o) { r.registerTagGroupsFromString(j, o); });
    EXPECT_TRUE(r.tagGroups().empty()); // nothing half-registered
}

TEST(Registries, BrokenThingClassAndPropertiesFilesNameTheFileAndTheFault) {
    JSonThingClassRegistry classes;
    expectConfigErrors(
        {
            {"missing namespace", R"({"name":"x"})", "missing key \"namespace\""},
            {"port without group", R"({"namespace":"n","name":"x","outputs":[{"name":"o"}]})",
             "missing key \"tagGroup\" in outputs[0]"},
            {"unqualified group", R"({"namespace":"n","name":"x","inputs":[{"name":"i","tagGroup":"plain"}]})",
             "not of the form namespace:name"},
        },
        [&](const std::string &j, const std::string &o) { classes.registerThingClassesFromString(j, o); });

    JSonThingProperties props;
    expectConfigErrors(
        {
            {"empty text", "", "JSON parse error"},
            {"missing thingId", R"({"thingClass":"n:c","contextId":""})", "missing key \"thingId\""},
            {"empty thingId", R"({"thingId":"","thingClass":"n:c"})", "empty \"thingId\""},
            {"contextId not string", R"({"thingId":"t","thingClass":"n:c","contextId":3})", "\"contextId\""},
        },
        [&](const std::string &j, const std::string &o) { props.readPropertiesFromString(j, o); });
    EXPECT_FALSE(props.valid());
}

TEST(Registries, MissingFilesNameThePath) {
    const std::string uri = "file:///nonexistent/dir/Thing.json";
    const std::vector<std::function<void()>> loads = {
        [&] { JSonTagGroupRegistry().registerTagGroupsFromURI(uri); },
        [&] { JSonThingClassRegistry().registerThingClassesFromURI(uri); },
        [&] { JSonThingProperties().readPropertiesFromURI(uri); },
    };
    for (const auto &load : loads) {
        try {
            load();
            ADD_FAILURE() << "no ConfigError";
        } catch (const ConfigError &e) {
            EXPECT_NE(std::string(e.what()).find("\"/nonexistent/dir/Thing.json\""), std::string::npos) << e.what();
        }
    }
}

TEST(Registries, UriToPathStripsExactlyTheFileScheme) {
    const std::pair<const char *, const char *> cases[] = {
        {"file://./config/Marlet.xml", "./config/Marlet.xml"},
        {"file:///opt/quorix/ixo/config/Marlet.xml", "/opt/quorix/ixo/config/Marlet.xml"},
        {"relative/path.json", "relative/path.json"},
        {"file:/one-slash", "file:/one-slash"},
    };
    for (const auto &[uri, path] : cases)
        EXPECT_EQ(uriToPath(uri), path) << uri;
}

} // namespace
