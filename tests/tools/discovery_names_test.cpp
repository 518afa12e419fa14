// How `publish` matches readers' partitions, and how tag-group
// names given on the command line are resolved against a configuration root.

#include <gtest/gtest.h>

#include "catalogue.h"
#include "discovery.h"
#include "errors.h"
#include "qxtest/config_root.h"

namespace {

TEST(PartitionsMatch, ReaderPatternsAgainstAWriterFlow) {
    struct Case {
        std::vector<std::string> reader;
        const char *writer;
        bool match;
    };
    const Case cases[] = {
        {{"flow.*"}, "flow.cam1", true},
        {{"flow.*"}, "flow.", true},
        {{"flow.cam1"}, "flow.cam1", true},
        {{"flow.cam1"}, "flow.cam2", false},
        {{"flow.a", "flow.b"}, "flow.b", true},
        {{}, "", true},
        {{}, "flow.x", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(qxbus::partitionsMatch(c.reader, c.writer), c.match) << c.writer;
    EXPECT_EQ(qxbus::flowOf("flow.cam1"), "cam1");
    EXPECT_EQ(qxbus::flowOf("flow.*"), "*");
    EXPECT_EQ(qxbus::flowOf("other"), "other");
}

TEST(TagGroupCatalogue, ResolvesNamesTopicsAndTheSharedVideoName) {
    const qxtest::ConfigRoot root;
    const auto catalogue = qxbus::TagGroupCatalogue::load(root.path());
    EXPECT_TRUE(catalogue.problems().empty());
    // Two files define com.vision.data:VideoFrameData; the plain name means the plain topic.
    EXPECT_EQ(catalogue.resolve("VideoFrameData").definition.topic, "com.vision.data.VideoFrameData");
    EXPECT_EQ(catalogue.resolve("com.vision.data:VideoFrameData").definition.topic, "com.vision.data.VideoFrameData");
    EXPECT_EQ(catalogue.resolve("com.vision.data.IXOPipe").definition.name, "VideoFrameData");
    EXPECT_EQ(catalogue.resolve("DetectionBoxData").definition.topic, "com.vision.data.DetectionBoxData");
    ASSERT_NE(catalogue.findByTopic("com/vision/data/IXOPipe"), nullptr);
    EXPECT_EQ(catalogue.findByTopic("com/vision/data/IXOPipe")->definition.topic, "com.vision.data.IXOPipe");
    EXPECT_THROW(catalogue.resolve("videoframedata"), qxbus::UsageError);
}

TEST(TagGroupCatalogue, SkipsABrokenFileAndReportsIt) {
    const qxtest::ConfigRoot root;
    root.writeFile("definitions/TagGroup/com.vision.data/Broken.json", "{\"tagGroups\": [ {");
    const auto catalogue = qxbus::TagGroupCatalogue::load(root.path());
    ASSERT_EQ(catalogue.problems().size(), 1u);
    EXPECT_NE(catalogue.problems()[0].find("Broken.json"), std::string::npos);
    EXPECT_NO_THROW(catalogue.resolve("SegmentationData"));
}

TEST(TagGroupCatalogue, AmbiguousWithoutADefaultTopicIsAnError) {
    qxbus::TagGroupCatalogue catalogue;
    for (const char *topic : {"t.one", "t.two"}) {
        qxbus::TagGroupEntry entry;
        entry.definition.nameSpace = "ns";
        entry.definition.name = "Same";
        entry.definition.topic = topic;
        catalogue.add(entry);
    }
    try {
        catalogue.resolve("Same");
        FAIL() << "resolved an ambiguous name";
    } catch (const qxbus::UsageError &e) {
        EXPECT_NE(std::string(e.what()).find("t.one t.two"), std::string::npos) << e.what();
    }
}

} // namespace
