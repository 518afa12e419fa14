// qxedgesink as applications use it, each publisher a process of its own, what
// reached the bus read back with the bus library. Guards against: what
// gst-inspect shows drifting from the documented texts; bad input or broken
// configuration that crashes late, opens silently with defaults or fails
// without its reason; a restart that aborts or stops publishing; pictures
// other than the input's; lost, repeated or reordered frames; results
// repeated from an earlier frame; the segmentation map's runs, filler records
// and device fields other than the documented ones.

#include <gtest/gtest.h>

#include "element_support.h"
#include "taggroups.h"

namespace {

using namespace elemtest;
using TOLVIXO::DeviceInfo;
using TOLVIXO::FrameInfo;
using TOLVIXO::SegmentInfo;
using Classification = TOLVIXO::Information<TOLVIXO::ClassificationData>;
using Detection = TOLVIXO::Information<TOLVIXO::DetectionBoxData>;

// These tests count every frame a sink handled. Shipped, pictures are
// keep-last (a reader that lags under load misses frames, by design, and
// Faults covers that); here they are kept until read, so a missing frame is
// the sink's fault.
const qxtest::ConfigRoot &keepingEveryPicture(const qxtest::ConfigRoot &root) {
    root.setQos("VideoFrame", R"({"history": "keep-all"})");
    return root;
}

std::string programPath(const char *name) {
    gchar *found = g_find_program_in_path(name);
    const std::string path = found ? found : name;
    g_free(found);
    return path;
}

// What gst-inspect shows of both elements: the documented texts.
TEST(SinkElement, InspectShowsTheDocumentedTexts) {
    const std::vector<std::pair<const char *, std::vector<std::string>>> inspected = {
        {"qxedgesink",
         {"Long-name                QUORIX Kelpkit sink\n", "Klass                    Sink/Video\n",
          "Description              An QUORIX Kelpkit video sink\n", "Description              QUORIX Kelpkit plugin\n",
          "Version                  2.3.0\n", "License                  LGPL\n",
          "Source module            ixo-tolv-plugin\n", "Binary package           Quorix GStreamer IXO Plug-ins\n",
          "      video/x-raw\n                 format: { (string)I420, (string)NV12, (string)BGR }\n"
          "                  width: [ 1, 2147483647 ]\n",
          "sof-marker: { (int)0, (int)1, (int)2, (int)4, (int)9 }\n      image/png\n      image/jpeg\n",
          std::string("  taggroups           : ") + tag_group_usage_manual("sink") + "\n",
          "  context-id          : Identify to the class of a thing for publishing.\n"}},
        {"qxedgesrc",
         {"QUORIX Kelpkit source", "Source/Video", "An QUORIX Kelpkit video source", "SRC template: 'src'",
          "format: { (string)I420, (string)NV12, (string)BGR }", "image/png",
          "VideoFrameData is the required tag group for synchronization.", "Show the Sync worker's message.",
          "Identify to the class of a thing for subscribing.", "(0): compatible", "(1): frame-id", "result-wait",
          "Default: 200", "stats", "samples-rejected"}},
    };
    for (const auto &[element, texts] : inspected) {
        qxtest::ConfigRoot root;
        qxtest::ChildProcess inspect({programPath("gst-inspect-1.0"), element}, root.path(), childEnv(root));
        ASSERT_EQ(inspect.wait(60s), 0) << inspect.err();
        for (const std::string &text : texts)
            EXPECT_NE(inspect.out().find(text), std::string::npos) << element << " misses:\n" << text;
    }
}

// Every way an open or a first frame can fail, each in processes of its own.
// A name the session cannot serve and padded B,G,R rows end the publisher by
// signal with their message; caps no frame can be described with fail
// negotiation; broken configuration fails the open with the file and the
// reason on standard error, for both elements and qxbus where they read it,
// and never falls back to defaults (an empty bus configuration used to open
// with Cyclone's, on every network interface).
TEST(SinkElement, FailuresSayWhy) {
    constexpr int kSignal = -1;
    const std::string publish = "videotestsrc num-buffers=1 ! qxedgesink name=sink taggroups=VideoFrameData";
    const struct {
        std::string launch;
        const char *file, *text; // a configuration file to write (text) or remove (nullptr)
        int status;
        const char *reason;
        bool everyOpener; // qxedgesrc and qxbus read the file too
    } cases[] = {
        {publish + "+NoSuchGroup", nullptr, nullptr, kSignal, "No matched tag group name.", false},
        {"videotestsrc num-buffers=2 ! video/x-raw,format=BGR,width=322,height=48 ! qxedgesink name=sink "
         "taggroups=VideoFrameData",
         nullptr, nullptr, kSignal, "Failed to pad data to edge instance.", false},
        {"fakesrc num-buffers=1 sizetype=fixed sizemax=64 ! video/x-raw,format=I420,width=2147483647,"
         "height=2147483647,framerate=30/1 ! qxedgesink name=sink",
         nullptr, nullptr, 2, "invalid caps", false},
        {publish, "config/VideoFrameThingOutProperties.json", nullptr, 3,
         "missing under every configuration root: config/VideoFrameThingOutProperties.json", false},
        {publish + "+ClassificationData", "config/ClassificationThingOutProperties.json", nullptr, 3,
         "tag group ClassificationData cannot be published: missing under every configuration root: "
         "config/ClassificationThingOutProperties.json",
         false},
        {publish, "config/Marlet.xml", "", 3, "config/Marlet.xml\" is empty", true},
        {publish, "config/Marlet.xml", "<CycloneDDS><Domain Id=\"7\"><General>", 3,
         "is not well-formed XML: <General> is never closed", true},
        {publish, "config/Marlet.xml", "<CycloneDDS></CycloneDDS>", 3, "has no <Domain> element", true},
        {publish, "config/Marlet.xml", "<CycloneDDS><Domain Id=\"999\"/></CycloneDDS>", 3,
         "Domain Id \"999\" is not a number", true},
        {publish + "+ClassificationData", "definitions/TagGroup/com.vision.data/ClassificationTagGroup.json", "{", 3,
         "tag group ClassificationData cannot be published: its files did not load", false},
        {publish, "config/VideoFrameThingOutProperties.json",
         "{\"thingId\": \"x\", \"thingClass\": \"com.vision.data:NoSuchClass\", \"contextId\": \"\"}", 3,
         "thing class com.vision.data:NoSuchClass is not registered", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reason);
        qxtest::ConfigRoot root;
        if (c.file && c.text) root.writeFile(c.file, c.text);
        if (c.file && !c.text) root.removeFile(c.file);
        auto sink = startPipeline(root, c.launch, {}, "qxedgesink:5");
        const int status = sink->wait(90s);
        if (c.status == kSignal)
            EXPECT_GT(status, 128) << sink->err();
        else
            EXPECT_EQ(status, c.status) << sink->err();
        EXPECT_NE(sink->err().find(c.reason), std::string::npos) << sink->err();
        if (!c.everyOpener) continue;
        for (auto argv : {std::vector<std::string>{programPath("gst-launch-1.0"), "qxedgesrc", "!", "fakesink"},
                          std::vector<std::string>{qxtest::buildDir() + "/tools/qxbus/qxbus", "list"}}) {
            qxtest::ChildProcess opener(argv, root.path(), childEnv(root));
            EXPECT_NE(opener.wait(60s), 0) << argv[0];
            EXPECT_NE(opener.err().find(c.reason), std::string::npos) << opener.err();
        }
    }
}

// Stopped and started again with frames flowing, the sink publishes again on
// its session (it used to abort on the first frame after the restart): every
// frame it handled, before and after, is on the bus with its results.
TEST(SinkElement, RestartWithFramesFlowingPublishesAgain) {
    qxtest::ConfigRoot root;
    keepingEveryPicture(root).enter();
    BusReader reader(false, {"VideoFrameData", "ClassificationData"});
    auto child =
        startPipeline(root,
                      "videotestsrc is-live=true num-buffers=30 ! video/x-raw,width=64,height=48,framerate="
                      "30/1 ! qxedgesink name=sink taggroups=VideoFrameData+ClassificationData",
                      {"--src-meta", "restart", "--settle-ms", "1000", "--await-readers", "1", "--restart-after", "10"},
                      "qxedgesink:4");
    const auto received = reader.collect(*child, 40);
    ASSERT_EQ(child->wait(90s), 0) << child->out() << child->err();
    EXPECT_NE(child->out().find("RESTARTED"), std::string::npos);
    const auto sent = countOf(child->err(), "qx_edgesink_write_data done.");
    EXPECT_GE(sent, 35);
    for (const char *group : {"VideoFrameData", "ClassificationData"})
        EXPECT_EQ(received.count(group) ? received.at(group).size() : 0u, sent) << group;
}

constexpr int kFrames = 8;
const char *const kAllGroups = "VideoFrameData+ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData";
const char *const kFillerStreamId = "b5d84236-a23d-49fc-a574-e0cd944490bb";

// Subscribes first, then lets the publisher run to its end; returns what arrived
// per group. The publisher waits 1.5 s in READY for the reader to match it.
std::map<std::string, std::vector<Pairs>> publish(qxtest::ConfigRoot &root, const std::string &launch,
                                                  std::vector<std::string> options, std::string *log = nullptr) {
    BusReader reader(
        false, {"VideoFrameData", "ClassificationData", "DetectionBoxData", "SegmentationData", "DeviceInfoData"});
    options.insert(options.end(), {"--settle-ms", "1500"});
    auto publisher = startPipeline(root, launch + " ! qxedgesink name=sink taggroups=" + kAllGroups, options,
                                   log ? "qxedgesink:4" : "");
    auto received = reader.collect(*publisher, kFrames);
    EXPECT_EQ(publisher->wait(60s), 0) << publisher->err();
    if (log) *log = publisher->err();
    return received;
}

// Each group's frame ids run without gaps or repeats to the last frame (the
// bus is reliable once matched; groups match one by one, so each may miss a
// different number of leading frames).
template <typename Record> std::vector<Record> decodeAll(const std::vector<Pairs> &samples, std::uint32_t last) {
    std::vector<Record> records;
    for (const Pairs &pairs : samples)
        records.push_back(decode<Record>(pairs));
    EXPECT_FALSE(records.empty());
    for (std::size_t i = 0; i < records.size(); ++i)
        EXPECT_EQ(records[i].frame_id, last + 1 - records.size() + i) << "gap or repeat";
    return records;
}

std::string source(const std::string &format, int width, int height) {
    return "videotestsrc num-buffers=" + std::to_string(kFrames) + " pattern=ball ! video/x-raw,format=" + format +
           ",width=" + std::to_string(width) + ",height=" + std::to_string(height) + ",framerate=30000/1001";
}

// Raw frames without metadata: the picture as B,G,R rows (322 makes I420
// strides differ from the width), and the filler records, a fixed number per frame.
TEST(SinkPublish, RawPicturesAndFillerRecords) {
    for (const auto &[format, width] : {std::pair<const char *, int>{"I420", 322}, {"BGR", 320}}) {
        SCOPED_TRACE(format);
        qxtest::ConfigRoot root;
        keepingEveryPicture(root).enter();
        const auto reference = referenceFrames(source(format, width, 240));
        auto received = publish(root, source(format, width, 240), {});
        for (const FrameInfo &frame : decodeAll<FrameInfo>(received["VideoFrameData"], kFrames - 1)) {
            const cv::Mat &bgr = reference.at(frame.frame_id);
            ASSERT_EQ(frame.data.size(), bgr.total() * 3);
            EXPECT_LT(meanAbsDiff(cv::Mat(bgr.size(), CV_8UC3, const_cast<unsigned char *>(frame.data.data())), bgr),
                      1.5)
                << frame.frame_id;
            EXPECT_EQ(std::tie(frame.width, frame.height, frame.size, frame.channels, frame.stream_id,
                               frame.compression, frame.format, frame.framerate),
                      std::make_tuple(static_cast<std::uint32_t>(width), 240u,
                                      static_cast<std::uint32_t>(bgr.total() * 3), 3u, std::string(kFillerStreamId),
                                      std::string("com.vision.models.COMPRESSION_KIND_NONE"),
                                      std::string("com.vision.models.PIXEL_FORMAT_RGB8"), 29.0f));
        }
        for (const auto &r : decodeAll<Classification>(received["ClassificationData"], kFrames - 1))
            EXPECT_EQ(std::make_tuple(r.data.at(0).label, r.data.size(), r.data.at(2).index),
                      std::make_tuple(std::string("[fake] test classification label string"), 3u, 2));
        for (const auto &r : decodeAll<Detection>(received["DetectionBoxData"], kFrames - 1))
            EXPECT_EQ(std::make_tuple(r.data.size(), r.data.at(1).class_label, r.data.at(1).y1),
                      std::make_tuple(3u, "X", 456.0f));
        for (const auto &r : decodeAll<SegmentInfo>(received["SegmentationData"], kFrames - 1))
            EXPECT_EQ(std::make_tuple(r.data.size(), r.data.at(9999).id, r.data.at(6).label, r.data.at(7).label,
                                      r.data.at(0).width),
                      std::make_tuple(10000u, 9999u, "car", "background", 100u));
        ASSERT_FALSE(received["DeviceInfoData"].empty());
        EXPECT_LE(received["DeviceInfoData"].size(), static_cast<std::size_t>(kFrames)) << "a device record repeated";
        for (const Pairs &pairs : received["DeviceInfoData"]) {
            const auto device = decode<DeviceInfo>(pairs);
            EXPECT_EQ(std::tie(device.port, device.manufacturer, device.serial, device.uri, device.protocol),
                      std::make_tuple(-1, "QUORIX", kFillerStreamId, "XXXXXXXXXXXXXXXXXXXX",
                                      "com.vision.models.INTERFACE_DDS"));
        }
    }
}

// The pipeline's batch metadata reaches the bus once per frame: the
// segmentation map as runs, the device a frame names (or the filler one). Names unknown while padding and publishing
// are reported and skipped (the session accepts only known names at open, so the list changes after it), and the other
// groups still go.
TEST(SinkPublish, BatchMetadataOncePerFrame) {
    qxtest::ConfigRoot root;
    keepingEveryPicture(root).enter();
    std::string log;
    auto received = publish(root, source("I420", 64, 48),
                            {"--meta", "--retag", std::string(kAllGroups) + "+Bogus+EngineInfoData"}, &log);
    for (const char *line : {"No matched tag group name to pad data to edge instance.",
                             "No matched tag group name to publish data to marlet.",
                             "Add EngineInfoData not support yet.", "Publish EngineInfoData not support yet."})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    const std::uint32_t last = srcexpect::kFrameIdBase + kFrames - 1;
    const auto want = [](std::uint32_t id) { return srcexpect::frame(static_cast<int>(id), "cam-b", 64, 48); };

    for (const FrameInfo &frame : decodeAll<FrameInfo>(received["VideoFrameData"], last))
        EXPECT_EQ(std::tie(frame.stream_id, frame.timestamp, frame.size),
                  std::make_tuple("cam-b", static_cast<std::int64_t>(want(frame.frame_id).timestamp), 64u * 48 * 3));
    // Results are compared field by field end to end, at the sources; here
    // each group must run once per frame, and repeat nothing of an earlier frame.
    for (const auto &r : decodeAll<Classification>(received["ClassificationData"], last))
        EXPECT_EQ(r.data.size(), want(r.frame_id).class_results.size()) << "results of an earlier frame repeated";
    decodeAll<Detection>(received["DetectionBoxData"], last);
    // The map travels as runs of equal neighbours per row: a a b b b / a a a a c.
    for (const auto &r : decodeAll<SegmentInfo>(received["SegmentationData"], last)) {
        const int id = static_cast<int>(r.frame_id);
        const std::vector<std::pair<int, std::uint32_t>> runs = {
            {id % 3, 2}, {(id + 1) % 3, 3}, {id % 3, 4}, {(id + 2) % 3, 1}};
        ASSERT_EQ(r.data.size(), runs.size());
        for (std::size_t i = 0; i < runs.size(); ++i) {
            const auto &got = r.data[i];
            const auto cls = static_cast<std::uint32_t>(runs[i].first);
            EXPECT_EQ(
                std::tie(got.id, got.color, got.label, got.repeat, got.size, got.probability, got.width, got.height),
                std::make_tuple(static_cast<std::uint32_t>(i), cls, "seg-" + std::to_string(cls), runs[i].second,
                                runs[i].second, 0.5f + 0.125f * cls, 5u, 2u))
                << "run " << i;
        }
    }
    // Device records carry no frame id: they follow the frames and end with the
    // last; even frames name the second device, odd ones point past the list.
    const auto &devices = received["DeviceInfoData"];
    ASSERT_FALSE(devices.empty());
    ASSERT_LE(devices.size(), static_cast<std::size_t>(kFrames));
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const auto device = decode<DeviceInfo>(devices[i]);
        const std::size_t n = kFrames - devices.size() + i;
        if (n % 2 == 0)
            EXPECT_EQ(std::tie(device.port, device.uri, device.serial, device.manufacturer),
                      std::make_tuple(8554, "Not Set", "SN-" + std::to_string(n), "Test Maker"));
        else
            EXPECT_EQ(std::tie(device.port, device.manufacturer, device.serial),
                      std::make_tuple(-1, "QUORIX", kFillerStreamId));
    }
}

} // namespace
