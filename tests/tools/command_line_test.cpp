// Guards what people type: a mistake that does not end with exit code 2 and a
// message naming it (before anything touches the bus), a silent bus that does
// not end with exit code 1 saying what was missing, help that does not exit 0,
// options that do not read the same in both spellings, tag groups not found by
// name, qualified name or topic (the plain name meaning the plain topic), and
// a broken definition file costing more than itself.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qxtest/config_root.h"
#include "tool_runner.h"

namespace {

TEST(QxbusCommandLine, EveryOutcomeHasItsExitCodeAndSaysWhy) {
    const qxtest::ConfigRoot root; // a bus of its own, with nothing on it
    const std::string broken = "definitions/TagGroup/com.vision.data/Broken.json";
    root.writeFile(broken, "{\"tagGroups\": [ {");
    for (const std::string topic : {"t.one", "t.two"})
        root.writeFile("definitions/TagGroup/x/" + topic + ".json",
                       R"({"tagGroups":[{"namespace":"x","name":"Same","topic":")" + topic + "\"}]}");
    const std::string echo = "echo", publish = "publish", boxes = "DetectionBoxData", masks = "SegmentationData";
    const struct {
        std::vector<std::string> args;
        int status;
        const char *says; // on stdout or stderr; stdout stays empty unless status is 0
    } cases[] = {
        {{"--help"}, 0, "Usage: qxbus [--root DIR] <command> [options]"},
        {{echo, "-h"}, 0, "Exit codes: 0 done, 1 runtime failure"},
        {{}, 2, "qxbus: no command given\nTry 'qxbus --help'.\n"},
        {{"frobnicate"}, 2, "qxbus: unknown command \"frobnicate\""},
        {{echo}, 2, "qxbus: echo needs a tag group"},
        {{publish, boxes}, 2, "qxbus: publish needs a tag group and a JSON record"},
        {{"list", "--bogus"}, 2, "qxbus: unknown option --bogus"},
        {{"list", "--json"}, 2, "qxbus: option --json does not apply to list"},
        {{echo, boxes, "--json=yes"}, 2, "qxbus: --json takes no value"},
        {{echo, boxes, "--count", "0"}, 2, "qxbus: --count needs a positive whole number, got \"0\""},
        {{echo, boxes, "--count=3x"}, 2, "qxbus: --count needs a positive whole number, got \"3x\""},
        {{echo, boxes, "--timeout", "-1"}, 2, "qxbus: --timeout needs a number of seconds above 0, got \"-1\""},
        {{echo, boxes, "--timeout"}, 2, "qxbus: --timeout needs a value"},
        {{echo, boxes, "extra"}, 2, "qxbus: unexpected argument \"extra\""},
        {{"--root", "/nonexistent", "list"}, 2, "qxbus: --root /nonexistent: no config/Marlet.xml there"},
        {{echo, "videoframedata"}, 2, "qxbus: unknown tag group \"videoframedata\"; defined under the configuration"},
        {{echo, "Same"}, 2, "qxbus: tag group \"Same\" is ambiguous; name one of its topics: t.one t.two\n"},
        {{publish, boxes, "--", "-x"}, 2, "qxbus: bad record: the record is not valid JSON: "}, // after "--", no option
        {{publish, boxes, "[1,2]"}, 2, "qxbus: bad record: the record must be a JSON object, got array [1,2]"},
        {{publish, boxes, R"({"frame_id": -1})"}, 2, "qxbus: bad record: \"frame_id\": value -1 does not fit uint32"},
        {{publish, boxes, R"({"frame_id": 1.5})"}, 2, "\"frame_id\": expected a whole number for uint32, got number"},
        {{publish, boxes, R"({"frme_id": 1})"}, 2, "\"frme_id\": not a field of this tag group; give its kind"},
        {{publish, boxes, R"({"data": [true]})"}, 2, "\"data[0]\": boolean true has no value kind; write a string"},
        {{publish, masks, R"({"data":[{"data":{"byte_seq":[256]}}]})"}, 2, "data[0].data[0]\": value 256 does not fit"},
        // An explicit empty flow is kept, not taken for "no flow given".
        {{publish, boxes, "{}", "--flow=", "--wait=0.2"},
         0,
         "qxbus: no subscriber of com.vision.data.DetectionBoxData in flow \"\" found; publishing anyway\n"
         "qxbus: published 1 record to com.vision.data.DetectionBoxData in flow \"\"\n"},
        {{echo, masks, "--timeout", "1"}, 1, "no record of com.vision.data.SegmentationData received within 1 s\n"},
        {{echo, "com/vision/data/IXOPipe", "--timeout", "1"}, 1, "no record of com.vision.data.IXOPipe received"},
        // Defined twice (IXOPipe too): the plain topic.
        {{echo, "com.vision.data:VideoFrameData", "--timeout", "1"}, 1, "of com.vision.data.VideoFrameData received"},
        {{"list", "--timeout", "1"}, 1, "qxbus: nothing found on the bus (domain "},
    };
    for (const auto &c : cases) {
        const auto result = qxbus_test::run(qxbus_test::qxbusArgv(c.args), root.path());
        EXPECT_EQ(result.status, c.status) << c.says << "\n" << result.err;
        EXPECT_THAT(result.out + result.err, testing::HasSubstr(c.says));
        if (c.status != 0) EXPECT_EQ(result.out, "") << c.says;
        // The broken file is skipped with its reason; the rest of the root still works.
        if (c.status == 1) EXPECT_THAT(result.err, testing::HasSubstr("qxbus: warning: skipped ./" + broken + ": "));
    }
}

} // namespace
