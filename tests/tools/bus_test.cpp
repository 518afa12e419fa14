// Guards qxbus on a real bus, every side a process of its own: echo losing,
// reordering or misshowing records (as JSON and as text: kinds given, defined
// or inferred, nesting, escapes, byte summaries), a flow filter letting other
// flows through, publish missing its readers or the plug-in's default flow, a
// sample that does not decode stopping echo or going unreported, stats
// miscounting, list missing running things, commands not ending on a signal.

#include <csignal>
#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "marlet/pair_codec.h"
#include "pair_builders.h"
#include "qxtest/config_root.h"
#include "raw_writer.h"
#include "tool_runner.h"

namespace {

using nlohmann::json;
using qxbus_test::qxbusArgv;
using qxbus_test::run;

TEST(QxbusOnTheBus, EchoStatsAndListShowWhatOtherProcessesDo) {
    const qxtest::ConfigRoot root;
    const auto start = [&](std::vector<std::string> args) {
        return std::make_unique<qxtest::ChildProcess>(qxbusArgv(std::move(args)), root.path());
    };
    const auto everyFlow = start({"echo", "VideoFrameData", "--json", "--count", "4", "--timeout", "100"});
    const auto camA = start({"echo", "VideoFrameData", "--flow", "camA", "--count", "1", "--timeout", "100"});
    const auto stats = start({"stats", "--duration", "600"});
    const auto siteX = start({"publish", "DeviceInfoData", R"({"stream_id": "d"})", "--flow", "siteX", "--count",
                              "100000", "--interval", "0.05", "--wait", "60"});
    const std::regex listed[] = {
        std::regex(R"(:VideoFrameData  topic com.vision.data.VideoFrameData  writers 0  readers 3  flows \*,camA\n)"),
        std::regex(R"(:DeviceInfoData  topic com.vision.data.DeviceInfoData  writers 1  readers 1  flows \*,siteX\n)"),
        std::regex(
            R"(qxbus-\S+  class com.vision.tools:QxBusOut-\S+  flows siteX\n    out com.vision.data.DeviceInfo)"),
        std::regex(R"(qxbus-\S+  class com.vision.tools:QxBusIn-\S+  flows \*\n    in  com.vision.data.DeviceInfo)"),
    };
    const auto listsAll = [&](const std::string &list) {
        return std::all_of(std::begin(listed), std::end(listed), [&](auto &r) { return std::regex_search(list, r); });
    };
    std::string list; // discovery takes its own time: ask again rather than guess how long
    for (int attempt = 0; attempt < 10 && !listsAll(list); ++attempt)
        list = run(qxbusArgv({"list", "--timeout", "2"}), root.path()).out;
    EXPECT_TRUE(listsAll(list)) << list;

    // A peer below the library sends a sample that does not decode between two good ones.
    const char *group = "com.vision.data:VideoFrameData", *topic = "com.vision.data.VideoFrameData";
    const marlettest::RawWriter raw(root, "com/vision/data/VideoFrameData", "flow.default");
    ASSERT_TRUE(raw.waitForReader(600, 2)); // the every-flow echo and stats
    const auto good = com::quorixtech::marlet::codec::encode({pairtest::str("stream_id", "raw")});
    raw.write(good, "default", group, 1);
    raw.write({0xB7, 0x01, 0x01, 0x00, 0x09}, "default", group, 2);
    raw.write(good, "default", group, 3);
    // Kinds from the definition, explicit kinds (over the definition's own, and for
    // fields it lacks), and inferred ones inside a list, in the order written.
    const char *record = R"({"stream_id": "s", "frame_id": 4294967295, "timestamp": 20240102030405006})";
    const char *camARecord = R"({"stream_id": "cam\u001b[2J", "frame_id": 4000000000, "framerate": 29.97,
        "width": {"int32": -3}, "data": [1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17], "odd\nname": {"byte_seq": []},
        "boxes": {"nvp_seq": [{"obj_id": -7, "x1": 0.25, "label": "car", "big": 3000000000}]}})";
    // Each finds its readers first, or it would say so; publish's default flow is the plug-in's own.
    const std::string published = "qxbus: published 1 record to com.vision.data.VideoFrameData in flow ";
    EXPECT_EQ(run(qxbusArgv({"publish", "VideoFrameData", record, "--wait", "60"}), root.path()).err,
              published + "\"default\"\n");
    EXPECT_EQ(run(qxbusArgv({"publish", "VideoFrameData", camARecord, "--flow=camA", "--wait=60"}), root.path()).err,
              published + "\"camA\"\n");

    ASSERT_EQ(everyFlow->wait(std::chrono::minutes(2)), 0) << everyFlow->err();
    std::istringstream lines(everyFlow->out());
    std::vector<json> received;
    for (std::string text; std::getline(lines, text);) {
        json &line = received.emplace_back(json::parse(text));
        line.erase("source"); // the publishing process's own name
        line.erase("sourceTime");
    }
    ASSERT_EQ(received.size(), 4u) << everyFlow->out();
    const auto expected = [&](const char *flow, int sequence, const json &record) {
        return json{{"tagGroup", group}, {"topic", topic}, {"flow", flow}, {"sequence", sequence}, {"record", record}};
    };
    EXPECT_EQ(received[0], expected("default", 1, {{"stream_id", "raw"}}));
    EXPECT_EQ(received[1], expected("default", 3, {{"stream_id", "raw"}}));
    EXPECT_EQ(received[2], expected("default", 1, json::parse(record)));
    json camAJson = json::parse(R"({"stream_id": "cam\u001b[2J", "frame_id": 4000000000, "width": -3,
        "data": {"bytes": 17, "head": "01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 ..."}, "odd\nname": {"bytes": 0,
        "head": ""}, "boxes": [{"obj_id": -7, "x1": 0.25, "label": "car", "big": 3000000000}]})");
    camAJson["framerate"] = 29.97f;
    EXPECT_EQ(received[3], expected("camA", 1, camAJson));
    // Reported once, with what is wrong and who sent it (publishers that closed are reported after it).
    const std::string skipped = "qxbus: skipped a sample that does not decode: sample 2 from \"raw\" on "
                                "com.vision.data.VideoFrameData: unknown kind 9 at offset 4\n";
    EXPECT_THAT(everyFlow->err(), testing::StartsWith(skipped));
    EXPECT_EQ(everyFlow->err().rfind("does not decode"), skipped.find("does not decode"));

    ASSERT_EQ(camA->wait(std::chrono::minutes(2)), 0) << camA->err();
    EXPECT_TRUE(std::regex_search(camA->out(), std::regex(R"(^--- com.vision.data:VideoFrameData  topic com.vision.)"
                                                          R"(data.VideoFrameData  seq 1  from qxbus-\S+  flow "camA")"
                                                          R"(  at \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z\n)")))
        << camA->out();
    EXPECT_THAT(camA->out(), testing::EndsWith(R"(Z
  stream_id (string) = "cam\u001b[2J"
  frame_id (uint32) = 4000000000
  framerate (float32) = 29.97
  width (int32) = -3
  data (byte_seq) = 17 bytes: 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 ...
  "odd\nname" (byte_seq) = 0 bytes
  boxes (nvp_seq), 1 entry
    [0] (nvp_seq), 4 entries
      obj_id (int32) = -7
      x1 (float32) = 0.25
      label (string) = "car"
      big (int64) = 3000000000
)"));

    // Both end cleanly on a signal; what stats counted until then is its result.
    siteX->terminate(SIGTERM);
    EXPECT_EQ(siteX->wait(std::chrono::minutes(2)), 0) << siteX->err();
    stats->terminate(SIGINT);
    ASSERT_EQ(stats->wait(std::chrono::minutes(2)), 0) << stats->err();
    const auto counted = [&](const char *row) { return std::regex_search(stats->out(), std::regex(row)); };
    EXPECT_TRUE(counted(R"( com.vision.data.VideoFrameData +4 +[\d.]+ +\d+  \(1 malformed\)\n)")) << stats->out();
    EXPECT_TRUE(counted(R"( com.vision.data.IXOPipe +0 +0.00 +0\n)")) << stats->out();
    EXPECT_TRUE(counted(R"( com.vision.data.DeviceInfoData +[1-9]\d* )")) << stats->out();
}

} // namespace
