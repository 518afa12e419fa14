// qxedgesink as applications use it: what gst-inspect shows, its
// properties and the taggroups parser, how it fails on bad input and broken
// configuration, restarts, and what reaches the bus (read here with the bus
// library) for raw, combined, metadata-carrying and encoded input. Guards
// against wrong or repeated records, pictures that differ from OpenCV's
// conversion, lost frames, aborts on restart and opens that fail silently or
// fall back to defaults.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "element_support.h"
#include "sink_meta_plan.h"
#include "taggroups.h"

namespace {

using namespace elemtest;


// The taggroups parser splits at runs of '+', keeping a leading empty name and
// dropping a trailing one; its help text ends with the role's advice (and with
// the last group for any other role).
TEST(SinkTagGroups, SplitAndUsageText) {
    const std::vector<std::pair<const char *, std::vector<std::string>>> splits = {
        {"a+b", {"a", "b"}}, {"+a", {"", "a"}}, {"a+", {"a"}}, {"a++b", {"a", "b"}}, {"", {""}}, {"++", {""}}};
    for (const auto &[text, names] : splits)
        EXPECT_EQ(split(text), names) << "\"" << text << "\"";
    const std::string last = "=> DeviceInfoData:\t\t For publishing camera device information to edge marlet.";
    const std::vector<std::pair<const char *, std::string>> endings = {
        {"sink", last + "\n\t\t\tqxedgesink should set taggroups=VideoFrameData for publishing frame data, "
                        "otherwise qxedgesrc will not pass any frame data to downstream."},
        {"src", last + "\n\t\t\tVideoFrameData is the required tag group for synchronization."},
        {"other", last}};
    for (const auto &[role, ending] : endings) {
        const std::string text = tag_group_usage_manual(role);
        EXPECT_EQ(text.rfind("Provide the tag groups name you want to use. Example: taggroups=VideoFrameData.\n", 0), 0u);
        EXPECT_EQ(text.substr(text.size() - std::min(text.size(), ending.size())), ending) << role;
    }
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
        {"qxedgesrc", "taggroups", {"ClassificationData++DeviceInfoData"}, "ClassificationData+DeviceInfoData"},
        {"qxedgesrc", "taggroups", {"ClassificationData+DetectionBoxData", "uni"},
         "ClassificationData+DetectionBoxData+uni"},
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
          "Show the Sync worker's message.", "context-id", "Identify to the class of a thing for subscribing.",
          "pairing", "(0): compatible", "(1): frame-id", "result-wait", "Default: 200", "stats", "samples-rejected"}},
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


using TOLVIXO::DeviceInfo;
using TOLVIXO::FrameInfo;
using TOLVIXO::SegmentInfo;
using Classification = TOLVIXO::Information<TOLVIXO::ClassificationData>;
using Detection = TOLVIXO::Information<TOLVIXO::DetectionBoxData>;

constexpr int kFrames = 8;
const char *const kAllGroups = "VideoFrameData+ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData";
const std::vector<std::string> kAllGroupNames = {"VideoFrameData", "ClassificationData", "DetectionBoxData",
                                                 "SegmentationData", "DeviceInfoData"};
const char *const kFillerStreamId = "b5d84236-a23d-49fc-a574-e0cd944490bb";

class SinkPublishTest : public ::testing::Test {
  protected:
    void SetUp() override {
        initGst();
        root_.enter();
    }
    // Subscribes first, then lets the publisher run to its end; returns what arrived per group.
    // Discovery between the two processes needs a moment on loopback, so the
    // publisher waits 1.5 s in READY; a late match shows as missing leading frames.
    std::map<std::string, std::vector<Pairs>> publish(bool uni, const std::vector<std::string> &groups,
                                                      const std::string &launch, std::vector<std::string> options = {},
                                                      const std::string &debug = "") {
        BusReader reader(uni, groups);
        options.insert(options.end(), {"--settle-ms", "1500"});
        publisher_ = startPipeline(root_, launch, options, debug);
        auto received = reader.collect(*publisher_, kFrames);
        EXPECT_EQ(publisher_->wait(60s), 0) << publisher_->err();
        return received;
    }
    qxtest::ConfigRoot root_;
    std::unique_ptr<qxtest::ChildProcess> publisher_;
};

std::string source(const std::string &format, int width, int height) {
    return "videotestsrc num-buffers=" + std::to_string(kFrames) + " pattern=ball ! video/x-raw,format=" + format +
           ",width=" + std::to_string(width) + ",height=" + std::to_string(height) + ",framerate=30000/1001";
}

// Raw pictures travel as B,G,R bytes, row after row.
bool samePicture(const std::vector<unsigned char> &data, const cv::Mat &bgr) {
    return std::equal(data.begin(), data.end(), bgr.datastart, bgr.dataend);
}

// Frame ids must run without gaps up to the last frame: the bus is reliable,
// so a frame lost once the subscriber matched is a fault.
void expectContiguousToEnd(const std::vector<std::uint32_t> &ids, std::uint32_t last) {
    ASSERT_FALSE(ids.empty());
    EXPECT_EQ(ids.back(), last);
    for (std::size_t i = 1; i < ids.size(); ++i) {
        EXPECT_EQ(ids[i], ids[i - 1] + 1) << "gap or repeat after frame " << ids[i - 1];
    }
}

// Result records carry the frame id: each group must run without gaps or
// repeats up to the last frame. Groups match the subscriber one by one, so
// each may miss a different number of leading frames.
void expectResultIdsContiguous(std::map<std::string, std::vector<Pairs>> &received, std::uint32_t last) {
    std::map<std::string, std::vector<std::uint32_t>> ids;
    for (const Pairs &pairs : received["ClassificationData"])
        ids["ClassificationData"].push_back(decode<Classification>(pairs).frame_id);
    for (const Pairs &pairs : received["DetectionBoxData"])
        ids["DetectionBoxData"].push_back(decode<Detection>(pairs).frame_id);
    for (const Pairs &pairs : received["SegmentationData"])
        ids["SegmentationData"].push_back(decode<SegmentInfo>(pairs).frame_id);
    for (const auto &[name, list] : ids) {
        SCOPED_TRACE(name);
        expectContiguousToEnd(list, last);
    }
}

TEST_F(SinkPublishTest, RawFramesWithoutMetadataPublishPictureAndFillers) {
    struct Case {
        const char *format;
        int width;
        int height;
    };
    // 322 makes I420 strides differ from the width. BGR uses a width
    // whose stride is exactly width x 3 (padded BGR rows are refused, see below).
    const std::vector<Case> cases = {{"I420", 322, 240}, {"BGR", 320, 240}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.format);
        const std::string input = source(c.format, c.width, c.height);
        const auto reference = referenceFrames(input);
        ASSERT_EQ(reference.size(), static_cast<std::size_t>(kFrames));

        auto received = publish(false, kAllGroupNames, input + " ! qxedgesink name=sink taggroups=" + kAllGroups);
        ASSERT_FALSE(HasFailure());

        std::vector<std::uint32_t> ids;
        for (const Pairs &pairs : received["VideoFrameData"]) {
            const auto frame = decode<FrameInfo>(pairs);
            ids.push_back(frame.frame_id);
            ASSERT_LT(frame.frame_id, reference.size());
            EXPECT_TRUE(samePicture(frame.data, reference[frame.frame_id])) << "picture of frame " << frame.frame_id;
            EXPECT_EQ(std::tie(frame.width, frame.height, frame.size, frame.channels, frame.stream_id,
                               frame.compression, frame.format),
                      std::make_tuple(static_cast<std::uint32_t>(c.width), static_cast<std::uint32_t>(c.height),
                                      static_cast<std::uint32_t>(frame.data.size()), 3u, std::string(kFillerStreamId),
                                      std::string("com.vision.models.COMPRESSION_KIND_NONE"),
                                      std::string("com.vision.models.PIXEL_FORMAT_RGB8")));
            EXPECT_FLOAT_EQ(frame.framerate, 29.0f);
        }
        expectContiguousToEnd(ids, kFrames - 1);

        for (const Pairs &pairs : received["DeviceInfoData"]) {
            const auto device = decode<DeviceInfo>(pairs);
            EXPECT_EQ(std::tie(device.port, device.manufacturer, device.serial, device.uri, device.protocol),
                      std::make_tuple(-1, std::string("QUORIX"), std::string(kFillerStreamId),
                                      std::string("XXXXXXXXXXXXXXXXXXXX"),
                                      std::string("com.vision.models.INTERFACE_DDS")));
        }
        for (const Pairs &pairs : received["ClassificationData"]) {
            const auto results = decode<Classification>(pairs);
            ASSERT_EQ(results.data.size(), 3u) << "filler results must not pile up across frames";
            EXPECT_EQ(results.data[2].index, 2);
            EXPECT_EQ(results.data[0].label, "[fake] test classification label string");
        }
        for (const Pairs &pairs : received["DetectionBoxData"]) {
            const auto results = decode<Detection>(pairs);
            ASSERT_EQ(results.data.size(), 3u);
            EXPECT_EQ(results.data[1].class_label, "X");
            EXPECT_FLOAT_EQ(results.data[1].y1, 456.0f);
        }
        for (const Pairs &pairs : received["SegmentationData"]) {
            const auto results = decode<SegmentInfo>(pairs);
            ASSERT_EQ(results.data.size(), 10000u);
            EXPECT_EQ(results.data[9999].id, 9999u);
            EXPECT_EQ(results.data[6].label, "car");
            EXPECT_EQ(results.data[7].label, "background");
            EXPECT_EQ(results.data[0].width, 100u);
        }
        expectResultIdsContiguous(received, kFrames - 1);
        EXPECT_FALSE(received["DeviceInfoData"].empty());
        EXPECT_LE(received["DeviceInfoData"].size(), static_cast<std::size_t>(kFrames)) << "a device record repeated";
    }
}

// The pipeline's batch metadata reaches the bus once per frame, results never
// repeating on a later frame. Names unknown while padding and publishing are
// reported and skipped (the session only accepts known names at open, so the
// list is changed after it), and the others still go.
TEST_F(SinkPublishTest, BatchMetadataIsPublishedOncePerFrame) {
    const int width = 64;
    const int height = 48;
    auto received = publish(false, kAllGroupNames,
                            source("I420", width, height) + " ! qxedgesink name=sink taggroups=" + kAllGroups,
                            {"--meta", "--retag", std::string(kAllGroups) + "+Bogus+EngineInfoData"}, "qxedgesink:4");
    ASSERT_FALSE(HasFailure());
    const std::string log = publisher_->err();
    for (const char *line : {"No matched tag group name to pad data to edge instance.",
                             "No matched tag group name to publish data to marlet.",
                             "Add EngineInfoData not support yet.", "Publish EngineInfoData not support yet."})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    EXPECT_EQ(log.find("No matched taggroup in metadata loader."), std::string::npos);

    std::vector<std::uint32_t> ids;
    for (const Pairs &pairs : received["VideoFrameData"]) {
        const auto frame = decode<FrameInfo>(pairs);
        ids.push_back(frame.frame_id);
        const std::uint64_t n = frame.frame_id - sinkplan::kFrameIdBase;
        EXPECT_EQ(frame.stream_id, "cam-b");
        EXPECT_EQ(frame.timestamp, static_cast<std::int64_t>(20260101120000000ULL + n));
        EXPECT_EQ(frame.width, static_cast<std::uint32_t>(width));
        EXPECT_EQ(frame.format, "com.vision.models.PIXEL_FORMAT_RGB8");
        EXPECT_EQ(frame.size, static_cast<std::uint32_t>(width * height * 3));
    }
    expectContiguousToEnd(ids, sinkplan::kFrameIdBase + kFrames - 1);

    for (const Pairs &pairs : received["ClassificationData"]) {
        const auto results = decode<Classification>(pairs);
        const std::uint64_t n = results.frame_id - sinkplan::kFrameIdBase;
        EXPECT_EQ(results.stream_id, "cam-b");
        EXPECT_FALSE(results.engine_id.empty());
        ASSERT_EQ(results.data.size(), n % 3 + 1) << "results of an earlier frame repeated";
        EXPECT_EQ(results.data.back().output, "out-" + std::to_string(n));
        EXPECT_EQ(results.data.back().label, "label-" + std::to_string(n % 3));
    }
    for (const Pairs &pairs : received["DetectionBoxData"]) {
        const auto results = decode<Detection>(pairs);
        const std::uint64_t n = results.frame_id - sinkplan::kFrameIdBase;
        ASSERT_EQ(results.data.size(), 1u);
        const auto &box = results.data[0];
        EXPECT_EQ(std::tie(box.obj_id, box.class_id, box.obj_label, box.class_label, box.x2, box.probability, box.meta),
                  std::make_tuple(static_cast<std::int32_t>(n), 7, std::string("person"), std::string("human"), 30.0f,
                                  0.875f, "frame " + std::to_string(n)));
    }
    const auto runs = sinkplan::expectedRuns();
    for (const Pairs &pairs : received["SegmentationData"]) {
        const auto results = decode<SegmentInfo>(pairs);
        ASSERT_EQ(results.data.size(), runs.size());
        for (std::size_t i = 0; i < runs.size(); ++i) {
            const auto &got = results.data[i];
            EXPECT_EQ(
                std::tie(got.id, got.color, got.label, got.repeat, got.size, got.probability, got.width, got.height),
                std::make_tuple(static_cast<std::uint32_t>(i), runs[i].color, std::string(runs[i].label),
                                runs[i].repeat, runs[i].repeat, runs[i].probability, sinkplan::kSegWidth,
                                sinkplan::kSegHeight))
                << "run " << i;
        }
    }
    expectResultIdsContiguous(received, sinkplan::kFrameIdBase + kFrames - 1);
    // Device records carry no frame id: they follow the frames in order and
    // end with the last one; odd frames point past the device list.
    const auto &devices = received["DeviceInfoData"];
    ASSERT_FALSE(devices.empty());
    ASSERT_LE(devices.size(), static_cast<std::size_t>(kFrames));
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const auto device = decode<DeviceInfo>(devices[i]);
        const std::uint64_t n = kFrames - devices.size() + i;
        if (n % 2 == 0) {
            EXPECT_EQ(device.port, srcexpect::device().port);
            EXPECT_EQ(device.uri, "Not Set");
            EXPECT_EQ(device.serial, "SN-" + std::to_string(n));
            EXPECT_EQ(device.manufacturer, srcexpect::device().manufacturer);
        } else {
            EXPECT_EQ(device.port, -1);
            EXPECT_EQ(device.manufacturer, "QUORIX");
            EXPECT_EQ(device.serial, kFillerStreamId);
        }
    }
}

TEST_F(SinkPublishTest, UniPublishesOneCombinedSamplePerFrame) {
    const int width = 64;
    const int height = 48;
    const std::string input = source("NV12", width, height);
    const auto reference = referenceFrames(input);
    auto received = publish(true, {}, input + " ! qxedgesink name=sink taggroups=uni", {"--meta"});
    ASSERT_FALSE(HasFailure());

    std::vector<std::uint32_t> ids;
    for (const Pairs &pairs : received["VideoFrameData"]) {
        const auto uni = TOLVIXO::UniInfo::Decode(pairs);
        ASSERT_EQ(uni.videoList.size(), 1u);
        ASSERT_EQ(uni.deviceList.size(), 1u);
        const auto &video = uni.videoList[0];
        ids.push_back(video.frame_id);
        const std::uint64_t n = video.frame_id - sinkplan::kFrameIdBase;
        ASSERT_LT(n, reference.size());
        EXPECT_TRUE(samePicture(video.data, reference[n])) << "picture of frame " << n;
        EXPECT_EQ(video.size, video.data.size());
        EXPECT_FLOAT_EQ(video.framerate, 29.0f);
        EXPECT_EQ(video.classificationResult.size(), n % 3 + 1);
        ASSERT_EQ(video.detectionResult.size(), 1u);
        EXPECT_EQ(video.detectionResult[0].obj_id, n);
        EXPECT_EQ(video.segmentationResult.size(), sinkplan::expectedRuns().size());
        EXPECT_EQ(uni.deviceList[0].manufacturer, n % 2 == 0 ? srcexpect::device().manufacturer : "QUORIX");
    }
    expectContiguousToEnd(ids, sinkplan::kFrameIdBase + kFrames - 1);
}

TEST_F(SinkPublishTest, EncodedInputIsPublishedAsTheWholeBuffer) {
    const std::string input = "videotestsrc num-buffers=" + std::to_string(kFrames) +
                              " pattern=ball ! video/x-raw,width=160,height=120,framerate=30/1 ! jpegenc";
    const auto reference = referenceEncoded(input);
    ASSERT_EQ(reference.size(), static_cast<std::size_t>(kFrames));
    auto received = publish(false, {}, input + " ! qxedgesink name=sink taggroups=VideoFrameData");
    ASSERT_FALSE(HasFailure());

    // Encoded buffers carry no frame number; what arrived must be the last
    // frames of the input, in order.
    const auto &samples = received["VideoFrameData"];
    ASSERT_FALSE(samples.empty());
    ASSERT_LE(samples.size(), reference.size());
    const std::size_t first = reference.size() - samples.size();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE(first + i);
        const auto frame = decode<FrameInfo>(samples[i]);
        EXPECT_EQ(frame.compression, "com.vision.models.COMPRESSION_KIND_GST_ENCODED");
        EXPECT_TRUE(frame.data == reference[first + i]);
        EXPECT_EQ(frame.size, reference[first + i].size());
        EXPECT_EQ(frame.width, 160u);
        EXPECT_EQ(frame.height, 120u);
        EXPECT_FLOAT_EQ(frame.framerate, 30.0f);
    }
}

} // namespace
