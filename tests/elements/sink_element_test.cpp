// qxedgesink as an element: what gst-inspect shows, its properties, the
// taggroups parser and help text, and how it fails on bad input.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sink_support.h"
#include "taggroups.h"

namespace {

using namespace sinktest;

TEST(SinkTagGroups, SplitKeepsLeadingEmptyNamesAndDropsTrailingOnes) {
    struct Case {
        const char *text;
        std::vector<std::string> names;
    };
    const std::vector<Case> cases = {
        {"a+b", {"a", "b"}}, {"+a", {"", "a"}}, {"a+", {"a"}}, {"a++b", {"a", "b"}},
        {"", {""}},          {"a", {"a"}},      {"++", {""}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(split(c.text), c.names) << "\"" << c.text << "\"";
    }
}

TEST(SinkTagGroups, UsageTextEndsWithTheRoleAdvice) {
    const std::string common = "Provide the tag groups name you want to use. Example: taggroups=VideoFrameData.\n"
                               "\t\t\tIf there are more than one tage group used, please use the delimiter '+' to "
                               "separate them. Just like: taggroups=VideoFrameData+ClassificationData.";
    const std::string lastGroup =
        "\n\t\t\t=> DeviceInfoData:\t\t For publishing camera device information to edge marlet.";
    struct Case {
        const char *role;
        std::string ending;
    };
    const std::vector<Case> cases = {
        {"sink", lastGroup + "\n\t\t\tqxedgesink should set taggroups=VideoFrameData for publishing frame data, "
                             "otherwise qxedgesrc will not pass any frame data to downstream."},
        {"src", lastGroup + "\n\t\t\tVideoFrameData is the required tag group for synchronization."},
        {"other", lastGroup},
    };
    for (const Case &c : cases) {
        const std::string text = tag_group_usage_manual(c.role);
        EXPECT_EQ(text.rfind(common, 0), 0u) << c.role;
        ASSERT_GE(text.size(), c.ending.size());
        EXPECT_EQ(text.substr(text.size() - c.ending.size()), c.ending) << c.role;
        EXPECT_NE(text.find("\n\t\t\t=> SegmentationData:\t\t For publishing segmentation inference result to edge "
                            "marlet.\n\t\t\t=> ClassificationData:"),
                  std::string::npos);
    }
    // The blurb pointer must stay valid and stable: GObject keeps it.
    EXPECT_EQ(tag_group_usage_manual("sink"), tag_group_usage_manual("sink"));
}

// String properties of both elements read back as written. taggroups is split
// (see above) and joined again with '+': a leading empty name stays, each write
// replaces the last, and "uni" is appended instead.
TEST(Elements, StringPropertiesReadBackAsWritten) {
    initGst();
    struct Case {
        const char *element;
        const char *property;
        std::vector<const char *> writes;
        const char *expected;
    };
    const std::vector<Case> cases = {
        {"qxedgesink", "taggroups", {"VideoFrameData+ClassificationData"}, "VideoFrameData+ClassificationData"},
        {"qxedgesink", "taggroups", {"uni", "uni"}, "uni+uni"},
        {"qxedgesink", "taggroups", {"uni", "VideoFrameData"}, "VideoFrameData"},
        {"qxedgesink", "taggroups", {"+DeviceInfoData"}, "+DeviceInfoData"},
        {"qxedgesink", "taggroups", {}, ""},
        {"qxedgesrc", "taggroups", {"ClassificationData++DeviceInfoData"}, "ClassificationData+DeviceInfoData"},
        {"qxedgesrc", "taggroups", {"ClassificationData+DetectionBoxData", "SegmentationData"}, "SegmentationData"},
        {"qxedgesrc",
         "taggroups",
         {"ClassificationData+DetectionBoxData", "uni"},
         "ClassificationData+DetectionBoxData+uni"},
        {"qxedgesrc", "taggroups", {}, ""},
        {"qxedgesink", "context-id", {"flow-7"}, "flow-7"},
        {"qxedgesrc", "context-id", {"flow-6", "flow-7"}, "flow-7"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.element) + "." + c.property);
        GstElement *element = gst_element_factory_make(c.element, nullptr);
        ASSERT_NE(element, nullptr);
        for (const char *value : c.writes) {
            g_object_set(element, c.property, value, nullptr);
        }
        gchar *read = nullptr;
        g_object_get(element, c.property, &read, nullptr);
        EXPECT_STREQ(read, c.expected);
        g_free(read);
        gst_object_unref(element);
    }
}

// What gst-inspect shows of both elements, through the build tree's plug-in.
TEST(Elements, InspectShowsMetadataPropertiesAndCaps) {
    struct Case {
        const char *element;
        std::vector<std::string> blocks;
    };
    const std::vector<Case> cases = {
        {"qxedgesink",
         {
             "  Long-name                QUORIX Kelpkit sink\n",
             "  Klass                    Sink/Video\n",
             "  Description              An QUORIX Kelpkit video sink\n",
             "  Name                     qxedge\n",
             "  Description              QUORIX Kelpkit plugin\n",
             "  Version                  2.3.0\n",
             "  License                  LGPL\n",
             "  Source module            ixo-tolv-plugin\n",
             "  Binary package           Quorix GStreamer IXO Plug-ins\n",
             "  SINK template: 'sink'\n    Availability: Always\n    Capabilities:\n"
             "      video/x-raw\n"
             "                 format: { (string)I420, (string)NV12, (string)BGR }\n"
             "                  width: [ 1, 2147483647 ]\n"
             "                 height: [ 1, 2147483647 ]\n"
             "              framerate: [ 0/1, 2147483647/1 ]\n"
             "      image/jpeg\n"
             "                  width: [ 16, 65535 ]\n"
             "                 height: [ 16, 65535 ]\n"
             "              framerate: [ 0/1, 2147483647/1 ]\n"
             "             sof-marker: { (int)0, (int)1, (int)2, (int)4, (int)9 }\n"
             "      image/png\n"
             "      image/jpeg\n",
             std::string("  taggroups           : ") + tag_group_usage_manual("sink") +
                 "\n                        flags: readable, writable\n                        String. Default: \"\"\n",
             "  context-id          : Identify to the class of a thing for publishing.\n"
             "                        flags: readable, writable\n                        String. Default: \"\"\n",
         }},
        {"qxedgesrc",
         {"QUORIX Kelpkit source", "Source/Video", "An QUORIX Kelpkit video source", "SRC template: 'src'",
          "Availability: Always", "video/x-raw", "format: { (string)I420, (string)NV12, (string)BGR }", "image/jpeg",
          "sof-marker: { (int)0, (int)1, (int)2, (int)4, (int)9 }", "image/png", "taggroups",
          "Provide the tag groups name you want to use. Example: taggroups=VideoFrameData.",
          "VideoFrameData is the required tag group for synchronization.", "syncmessage",
          "Show the Sync worker's message.", "context-id", "Identify to the class of a thing for subscribing."}},
    };
    gchar *program = g_find_program_in_path("gst-inspect-1.0");
    ASSERT_NE(program, nullptr) << "gst-inspect-1.0 is not installed";
    const std::string inspectProgram = program;
    g_free(program);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.element);
        qxtest::ConfigRoot root;
        qxtest::ChildProcess inspect({inspectProgram, c.element}, root.path(), childEnv(root));
        ASSERT_EQ(inspect.wait(60s), 0) << inspect.err();
        for (const std::string &block : c.blocks) {
            EXPECT_NE(inspect.out().find(block), std::string::npos) << "missing:\n" << block;
        }
    }
}

// Bad input at the sink, each run in a publisher process of its own: a name the
// session cannot serve and a padded BGR picture end the process by signal with
// their message; caps no frame can be described with fail negotiation; missing
// configuration fails the state change cleanly instead of crashing later.
TEST(SinkElement, BadInputFailsWithItsMessage) {
    constexpr int kKilled = -1;
    struct Case {
        const char *what;
        std::string launch;
        const char *removedFile;
        const char *debug;
        int status;
        std::vector<std::string> stderrLines;
        const char *stdoutLine;
    };
    const std::vector<Case> cases = {
        {"unknown tag group at open",
         "videotestsrc num-buffers=1 ! video/x-raw,format=I420,width=64,height=48 ! qxedgesink name=sink "
         "taggroups=VideoFrameData+NoSuchGroup",
         nullptr,
         "",
         kKilled,
         {"No matched tag group name."},
         ""},
        {"BGR rows with padding",
         "videotestsrc num-buffers=2 ! video/x-raw,format=BGR,width=322,height=48 ! qxedgesink name=sink "
         "taggroups=VideoFrameData",
         nullptr,
         "",
         kKilled,
         {"Failed to pad data to edge instance."},
         ""},
        // Within the template's ranges, but no frame of this size can be described.
        {"unparseable caps",
         "fakesrc num-buffers=1 sizetype=fixed sizemax=64 filltype=zero ! "
         "video/x-raw,format=I420,width=2147483647,height=2147483647,framerate=30/1 ! qxedgesink name=sink",
         nullptr,
         "qxedgesink:5",
         2,
         {"invalid caps", "not-negotiated"},
         ""},
        {"missing configuration",
         "videotestsrc num-buffers=1 ! qxedgesink name=sink taggroups=VideoFrameData",
         "config/VideoFrameThingOutProperties.json",
         "",
         3,
         {"missing under every configuration root: config/VideoFrameThingOutProperties.json"},
         "OPEN FAILED"},
        // Found at open now; the first frame used to abort the process instead.
        {"missing properties of a tag group",
         "videotestsrc num-buffers=1 ! qxedgesink name=sink taggroups=VideoFrameData+ClassificationData",
         "config/ClassificationThingOutProperties.json",
         "",
         3,
         {"tag group ClassificationData cannot be published: missing under every configuration root: "
          "config/ClassificationThingOutProperties.json"},
         "OPEN FAILED"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        qxtest::ConfigRoot root;
        if (c.removedFile) root.removeFile(c.removedFile);
        auto child = startPipeline(root, c.launch, {}, c.debug);
        const int status = child->wait(90s);
        if (c.status == kKilled) {
            EXPECT_GT(status, 128) << "expected death by signal; stderr:\n" << child->err();
        } else {
            EXPECT_EQ(status, c.status) << child->err();
        }
        for (const std::string &line : c.stderrLines) {
            EXPECT_NE(child->err().find(line), std::string::npos) << child->err();
        }
        EXPECT_NE(child->out().find(c.stdoutLine), std::string::npos) << child->out();
    }
}

// A broken configuration stops every open with its reason on standard error,
// for both elements and qxbus, and never falls back to defaults: an empty or
// cut-off bus configuration used to open with Cyclone's defaults, on every
// network interface, without a word. Definition files that do not load fail
// the open with the file named instead of the first frame.
TEST(Elements, BrokenConfigurationFailsTheOpenWithItsReason) {
    struct Case {
        const char *file;
        const char *text;
        const char *reason;
        bool allOpeners; // the bus configuration is read by all; a definition only by the sink here
    };
    const std::vector<Case> cases = {
        {"config/Marlet.xml", "", "config/Marlet.xml\" is empty", true},
        {"config/Marlet.xml", "<CycloneDDS><Domain Id=\"7\"><General>",
         "is not well-formed XML: <General> is never closed", true},
        {"config/Marlet.xml", "<CycloneDDS></CycloneDDS>", "has no <Domain> element", true},
        {"config/Marlet.xml", "<CycloneDDS><Domain Id=\"999\"/></CycloneDDS>", "Domain Id \"999\" is not a number",
         true},
        {"definitions/TagGroup/com.vision.data/ClassificationTagGroup.json", "{",
         "tag group ClassificationData cannot be published: its files did not load", false},
        {"config/VideoFrameThingOutProperties.json",
         "{\"thingId\": \"x\", \"thingClass\": \"com.vision.data:NoSuchClass\", \"contextId\": \"\"}",
         "thing class com.vision.data:NoSuchClass is not registered", false},
    };
    gchar *launchProgram = g_find_program_in_path("gst-launch-1.0");
    ASSERT_NE(launchProgram, nullptr);
    const std::string launch = launchProgram;
    g_free(launchProgram);
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.file) + " = " + c.text);
        qxtest::ConfigRoot root;
        root.writeFile(c.file, c.text);
        std::vector<std::unique_ptr<qxtest::ChildProcess>> openers;
        openers.push_back(startPipeline(
            root, "videotestsrc num-buffers=1 ! qxedgesink name=sink taggroups=VideoFrameData+ClassificationData"));
        if (c.allOpeners) {
            openers.push_back(std::make_unique<qxtest::ChildProcess>(
                std::vector<std::string>{launch, "qxedgesrc", "!", "fakesink"}, root.path(), childEnv(root)));
            openers.push_back(std::make_unique<qxtest::ChildProcess>(
                std::vector<std::string>{qxtest::buildDir() + "/tools/qxbus/qxbus", "list"}, root.path(),
                childEnv(root)));
        }
        for (auto &opener : openers) {
            EXPECT_NE(opener->wait(60s), 0) << opener->out();
            EXPECT_NE(opener->err().find(c.reason), std::string::npos) << opener->err();
        }
    }
}

// A pipeline stopped and started again with frames flowing publishes again on
// the element's session (it used to abort on the first frame after the
// restart): every frame that reached the sink, before and after, is on the
// bus with its results, and the process ends normally.
TEST(SinkElement, RestartWithFramesFlowingPublishesAgain) {
    qxtest::ConfigRoot root;
    root.enter();
    BusReader reader(false, {"VideoFrameData", "ClassificationData"});
    auto child =
        startPipeline(root,
                      "videotestsrc is-live=true num-buffers=30 ! video/x-raw,width=64,height=48,"
                      "framerate=30/1 ! qxedgesink name=sink taggroups=VideoFrameData+ClassificationData",
                      {"--src-meta", "restart", "--settle-ms", "1000", "--restart-after", "10"}, "qxedgesink:4");
    const auto received = reader.collect(*child, 40);
    ASSERT_EQ(child->wait(90s), 0) << child->out() << child->err();
    EXPECT_NE(child->out().find("RESTARTED"), std::string::npos);
    // What the sink published, by its own account: one line per frame handled.
    const std::string log = child->err();
    int sent = 0;
    for (auto at = log.find("qx_edgesink_write_data done."); at != std::string::npos;
         at = log.find("qx_edgesink_write_data done.", at + 1))
        ++sent;
    EXPECT_GE(sent, 35);
    for (const char *group : {"VideoFrameData", "ClassificationData"}) {
        ASSERT_EQ(received.count(group), 1u) << group;
        EXPECT_EQ(received.at(group).size(), static_cast<std::size_t>(sent)) << group;
    }
}

} // namespace
