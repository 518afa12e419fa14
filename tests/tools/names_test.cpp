// Guards how names on the command line find their tag group (name, qualified
// name or topic; the plain name meaning the plain topic), that a broken file
// under the root costs only itself, and how `publish` matches the partitions
// of the readers it waits for.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "catalogue.h"
#include "discovery.h"
#include "errors.h"
#include "qxtest/config_root.h"

namespace {

TEST(QxbusNames, TagGroupsResolveByNameQualifiedNameOrTopic) {
    const qxtest::ConfigRoot root;
    root.writeFile("definitions/TagGroup/com.vision.data/Broken.json", "{\"tagGroups\": [ {");
    for (const char *topic : {"t.one", "t.two"})
        root.writeFile(std::string("definitions/TagGroup/x/") + topic + ".json",
                       R"({"tagGroups":[{"namespace":"x","name":"Same","topic":")" + std::string(topic) + "\"}]}");
    const auto catalogue = qxbus::TagGroupCatalogue::load(root.path());
    ASSERT_EQ(catalogue.problems().size(), 1u);
    EXPECT_THAT(catalogue.problems()[0], testing::StartsWith("skipped " + root.path()));
    EXPECT_THAT(catalogue.problems()[0], testing::HasSubstr("Broken.json: "));

    // Two files define com.vision.data:VideoFrameData; the plain name means the plain topic.
    const std::pair<const char *, const char *> resolved[] = {
        {"VideoFrameData", "com.vision.data.VideoFrameData"},
        {"com.vision.data:VideoFrameData", "com.vision.data.VideoFrameData"},
        {"com.vision.data.IXOPipe", "com.vision.data.IXOPipe"},
        {"com/vision/data/IXOPipe", "com.vision.data.IXOPipe"},
        {"DetectionBoxData", "com.vision.data.DetectionBoxData"},
    };
    for (const auto &[name, topic] : resolved)
        EXPECT_EQ(catalogue.resolve(name).definition.topic, topic) << name;
    EXPECT_THAT([&] { catalogue.resolve("Same"); },
                testing::ThrowsMessage<qxbus::UsageError>(
                    testing::StrEq("tag group \"Same\" is ambiguous; name one of its topics: t.one t.two")));
    EXPECT_THROW(catalogue.resolve("videoframedata"), qxbus::UsageError);
}

TEST(QxbusNames, ReaderPartitionPatternsMatchAWritersFlow) {
    const std::tuple<std::vector<std::string>, const char *, bool> cases[] = {
        {{"flow.*"}, "flow.cam1", true},
        {{"flow.*"}, "flow.", true},
        {{"flow.cam1"}, "flow.cam1", true},
        {{"flow.cam1"}, "flow.cam2", false},
        {{"flow.a", "flow.b"}, "flow.b", true},
        {{}, "", true}, // no partition at all is the default partition ""
        {{}, "flow.x", false},
    };
    for (const auto &[reader, writer, match] : cases)
        EXPECT_EQ(qxbus::partitionsMatch(reader, writer), match) << writer;
    EXPECT_EQ(qxbus::flowOf("flow.cam1"), "cam1");
    EXPECT_EQ(qxbus::flowOf("other"), "other");
}

} // namespace
