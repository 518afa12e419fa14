// qxbus on the real bus, every side a process of its own, in a private
// configuration root with a domain id no other test uses.

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <regex>

#include <nlohmann/json.hpp>

#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "tool_runner.h"

namespace {

using nlohmann::json;
using qxbus_test::lines;
using qxbus_test::qxbusArgv;
using qxbus_test::runQxbus;

// Generous: these bound a hang, they do not measure anything.
constexpr auto kChildLimit = std::chrono::milliseconds(120000);

std::string defaultFlowOf(const qxtest::ConfigRoot &root, const std::string &propertiesFile) {
    return json::parse(root.readFile("config/" + propertiesFile)).at("contextId").get<std::string>();
}

TEST(QxbusEcho, JsonLinesCarryWhatAnotherProcessPublished) {
    const qxtest::ConfigRoot root;
    qxtest::ChildProcess echo(qxbusArgv({"echo", "DetectionBoxData", "--json", "--count", "2", "--timeout", "100"}),
                              root.path());
    const char *record = R"({"engine_id": "yolo", "stream_id": "cam7", "frame_id": 4294967295,
        "data": [{"obj_id": 3, "obj_label": "car", "x1": 0.25, "probability": 0.5, "meta": "m"}]})";
    const auto published =
        runQxbus({"publish", "DetectionBoxData", record, "--count", "2", "--wait", "60"}, root.path());
    ASSERT_EQ(published.status, 0) << published.err;

    ASSERT_EQ(echo.wait(kChildLimit), 0) << echo.err();
    const auto received = lines(echo.out());
    ASSERT_EQ(received.size(), 2u) << echo.out();
    for (std::size_t i = 0; i < received.size(); ++i) {
        const json line = json::parse(received[i]);
        EXPECT_EQ(line.at("tagGroup"), "com.vision.data:DetectionBoxData");
        EXPECT_EQ(line.at("topic"), "com.vision.data.DetectionBoxData");
        // Without --flow, publish uses the flow of the plug-in's properties for the group.
        EXPECT_EQ(line.at("flow"), defaultFlowOf(root, "DetectionBoxThingOutProperties.json"));
        EXPECT_EQ(line.at("sequence"), i + 1);
        EXPECT_EQ(line.at("record"), json::parse(record));
    }
}

TEST(QxbusEcho, TextShowsKindsNestingAndAByteSummary) {
    const qxtest::ConfigRoot root;
    qxtest::ChildProcess echo(qxbusArgv({"echo", "VideoFrameData", "--count", "1", "--timeout", "100"}), root.path());
    const auto published = runQxbus({"publish", "VideoFrameData",
                                     R"({"stream_id": "s", "frame_id": 4000000000, "timestamp": 20240102030405006,
                                         "data": [1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20], "framerate": 29.97})",
                                     "--flow", "lab", "--wait", "60"},
                                    root.path());
    ASSERT_EQ(published.status, 0) << published.err;
    ASSERT_EQ(echo.wait(kChildLimit), 0) << echo.err();
    const std::string out = echo.out();
    EXPECT_NE(out.find("--- com.vision.data:VideoFrameData  topic com.vision.data.VideoFrameData  seq 1"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("flow \"lab\""), std::string::npos) << out;
    for (const char *line : {"  stream_id (string) = \"s\"\n", "  frame_id (uint32) = 4000000000\n",
                             "  timestamp (int64) = 20240102030405006\n",
                             "  data (byte_seq) = 20 bytes: 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 ...\n",
                             "  framerate (float32) = 29.97\n"})
        EXPECT_NE(out.find(line), std::string::npos) << "missing " << line << " in\n" << out;
}

TEST(QxbusEcho, FlowOptionReadsOneFlowOnly) {
    const qxtest::ConfigRoot root;
    qxtest::ChildProcess oneFlow(
        qxbusArgv({"echo", "ClassificationData", "--json", "--flow", "camA", "--count", "1", "--timeout", "100"}),
        root.path());
    qxtest::ChildProcess everyFlow(
        qxbusArgv({"echo", "ClassificationData", "--json", "--count", "3", "--timeout", "100"}), root.path());
    // camB first: had the flow filter leaked, camA's reader would see these before its own record.
    const auto b = runQxbus(
        {"publish", "ClassificationData", R"({"stream_id": "B"})", "--flow", "camB", "--count", "2", "--wait", "60"},
        root.path());
    ASSERT_EQ(b.status, 0) << b.err;
    const auto a = runQxbus(
        {"publish", "ClassificationData", R"({"stream_id": "A"})", "--flow", "camA", "--wait", "60"}, root.path());
    ASSERT_EQ(a.status, 0) << a.err;

    ASSERT_EQ(oneFlow.wait(kChildLimit), 0) << oneFlow.err();
    const auto onlyA = lines(oneFlow.out());
    ASSERT_EQ(onlyA.size(), 1u);
    EXPECT_EQ(json::parse(onlyA[0]).at("flow"), "camA");
    EXPECT_EQ(json::parse(onlyA[0]).at("record").at("stream_id"), "A");

    ASSERT_EQ(everyFlow.wait(kChildLimit), 0) << everyFlow.err();
    std::vector<std::string> flows;
    for (const auto &line : lines(everyFlow.out()))
        flows.push_back(json::parse(line).at("flow"));
    EXPECT_EQ(flows, (std::vector<std::string>{"camB", "camB", "camA"}));
}

TEST(QxbusOnAnEmptyBus, WaitingInVainIsAFailureThatSaysWhatWasMissing) {
    const qxtest::ConfigRoot root;
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{"echo", "SegmentationData", "--timeout", "1"},
         "no record of com.vision.data.SegmentationData received within 1 s"},
        {{"list", "--timeout", "1"}, "nothing found on the bus"},
    };
    for (const auto &[args, message] : cases) {
        SCOPED_TRACE(args.front());
        const auto result = runQxbus(args, root.path());
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(QxbusList, ShowsTheThingsAndTagGroupsOfRunningProcesses) {
    const qxtest::ConfigRoot root;
    qxtest::ChildProcess reader(qxbusArgv({"echo", "DeviceInfoData", "--timeout", "110"}), root.path());
    qxtest::ChildProcess writer(qxbusArgv({"publish", "DeviceInfoData", R"({"stream_id": "d"})", "--flow", "siteX",
                                           "--count", "100000", "--interval", "0.05", "--wait", "60"}),
                                root.path());
    const std::regex group(
        R"(com\.vision\.data:DeviceInfoData  topic com\.vision\.data\.DeviceInfoData  writers 1  readers 1  flows \*,siteX)");
    const std::regex writerThing(
        R"(qxbus-\S+  class com\.vision\.tools:QxBusOut-\S+  flows siteX\n    out com\.vision\.data\.DeviceInfoData)");
    const std::regex readerThing(
        R"(qxbus-\S+  class com\.vision\.tools:QxBusIn-\S+  flows \*\n    in  com\.vision\.data\.DeviceInfoData)");
    // Discovery takes its own time; ask again rather than guess how long.
    std::string listed;
    for (int attempt = 0; attempt < 10; ++attempt) {
        const auto result = runQxbus({"list", "--timeout", "2"}, root.path());
        listed = result.out;
        if (result.status == 0 && std::regex_search(listed, group)) break;
    }
    EXPECT_TRUE(std::regex_search(listed, group)) << listed;
    EXPECT_TRUE(std::regex_search(listed, writerThing)) << listed;
    EXPECT_TRUE(std::regex_search(listed, readerThing)) << listed;

    // Both stop cleanly on SIGTERM; the reader has had records by now, so it succeeds.
    writer.terminate(SIGTERM);
    reader.terminate(SIGTERM);
    EXPECT_EQ(writer.wait(kChildLimit), 0) << writer.err();
    EXPECT_EQ(reader.wait(kChildLimit), 0) << reader.err();
    EXPECT_NE(reader.out().find("stream_id (string) = \"d\""), std::string::npos);
}

TEST(QxbusStats, CountsEverySamplePerTopic) {
    const qxtest::ConfigRoot root;
    qxtest::ChildProcess stats(qxbusArgv({"stats", "--duration", "600"}), root.path());
    const auto published = runQxbus({"publish", "VideoFrameData", R"({"stream_id": "s", "data": [1, 2, 3]})", "--count",
                                     "5", "--wait", "60", "--interval", "0.1"}, // pictures: keep-last 3, not a burst
                                    root.path());
    ASSERT_EQ(published.status, 0) << published.err;
    stats.terminate(SIGINT); // ends the window early; what arrived is still counted
    ASSERT_EQ(stats.wait(kChildLimit), 0) << stats.err();

    // "com.vision.data:VideoFrameData  com.vision.data.VideoFrameData  5  ..."
    std::map<std::string, long> samplesByTopic;
    const std::regex row(R"((\S+:\S+)\s+(\S+)\s+(\d+)\s+[\d.]+\s+\d+)");
    for (const auto &line : lines(stats.out())) {
        std::smatch m;
        if (std::regex_search(line, m, row)) samplesByTopic[m[2]] = std::stol(m[3]);
    }
    EXPECT_EQ(samplesByTopic["com.vision.data.VideoFrameData"], 5) << stats.out();
    EXPECT_EQ(samplesByTopic["com.vision.data.IXOPipe"], 0) << stats.out();
    EXPECT_EQ(samplesByTopic.count("com.vision.data.DetectionBoxData"), 1u) << stats.out();
}

TEST(QxbusEcho, ReadsFramesPublishedByAPipeline) {
    const std::string plugin = qxtest::pluginBuildDir() + "/libgstqxedge.so";
    const std::string gstLaunch = qxbus_test::findProgram("gst-launch-1.0");
    if (!std::filesystem::exists(plugin) || gstLaunch.empty())
        GTEST_SKIP() << "the qxedge plug-in is not built (" << plugin << ") or gst-launch-1.0 is missing";

    const qxtest::ConfigRoot root;
    qxtest::ChildProcess echo(qxbusArgv({"echo", "VideoFrameData", "--json", "--count", "2", "--timeout", "100"}),
                              root.path());
    qxtest::ChildProcess pipeline(
        {gstLaunch, "videotestsrc", "num-buffers=300", "is-live=true", "!",
         "video/x-raw,format=BGR,width=64,height=48,framerate=30/1", "!", "qxedgesink", "taggroups=VideoFrameData"},
        root.path(),
        {{"GST_PLUGIN_PATH", qxtest::pluginBuildDir()}, {"GST_REGISTRY", root.path() + "/gst-registry.bin"}});
    ASSERT_EQ(echo.wait(kChildLimit), 0) << echo.err() << pipeline.err();
    pipeline.terminate(SIGINT);
    pipeline.wait(kChildLimit);
    const auto frames = lines(echo.out());
    ASSERT_EQ(frames.size(), 2u);
    for (const auto &frame : frames) {
        const json record = json::parse(frame).at("record");
        EXPECT_EQ(record.at("width"), 64);
        EXPECT_EQ(record.at("height"), 48);
        EXPECT_EQ(record.at("data").at("bytes"), 64 * 48 * 3);
    }
}

} // namespace
