// Guards what people type: a mistake that does not end with exit code 2 and a
// message naming it (before anything touches the bus), a silent bus that does
// not end with exit code 1 saying what was missing, help that does not exit 0,
// and options that do not read the same in both spellings.

#include <gtest/gtest.h>

#include "options.h"
#include "qxtest/config_root.h"
#include "tool_runner.h"

namespace {

TEST(QxbusCommandLine, EveryOutcomeHasItsExitCodeAndSaysWhy) {
    const qxtest::ConfigRoot root; // a bus of its own, with nothing on it
    const std::string echo = "echo", publish = "publish", boxes = "DetectionBoxData";
    const struct {
        std::vector<std::string> args;
        int status;
        const char *says; // on stdout for status 0, else on stderr (with nothing on stdout)
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
        {{echo, boxes, "--count", "3x"}, 2, "qxbus: --count needs a positive whole number, got \"3x\""},
        {{echo, boxes, "--timeout", "-1"}, 2, "qxbus: --timeout needs a number of seconds above 0, got \"-1\""},
        {{echo, boxes, "--timeout"}, 2, "qxbus: --timeout needs a value"},
        {{echo, boxes, "extra"}, 2, "qxbus: unexpected argument \"extra\""},
        {{"--root", "/nonexistent", "list"}, 2, "qxbus: --root /nonexistent: no config/Marlet.xml there"},
        {{echo, "NoSuchGroup"}, 2, "qxbus: unknown tag group \"NoSuchGroup\"; defined under the configuration root:"},
        {{publish, boxes, "{not json"}, 2, "qxbus: bad record: the record is not valid JSON: "},
        {{publish, boxes, "[1,2]"}, 2, "qxbus: bad record: the record must be a JSON object, got array [1,2]"},
        {{publish, boxes, R"({"frame_id": -1})"}, 2, "qxbus: bad record: \"frame_id\": value -1 does not fit uint32"},
        {{publish, boxes, R"({"frame_id": 1.5})"}, 2, "\"frame_id\": expected a whole number for uint32, got number"},
        {{publish, boxes, R"({"frme_id": 1})"}, 2, "\"frme_id\": not a field of this tag group; give its kind"},
        {{publish, boxes, R"({"data": [true]})"}, 2, "\"data[0]\": boolean true has no value kind; write a string"},
        {{publish, "SegmentationData", R"({"data": [{"data": {"byte_seq": [1, 256]}}]})"},
         2,
         "\"data[0].data[1]\": value 256 does not fit a byte"},
        {{echo, "SegmentationData", "--timeout", "1"},
         1,
         "qxbus: no record of com.vision.data.SegmentationData received within 1 s\n"},
        {{"list", "--timeout", "1"}, 1, "qxbus: nothing found on the bus (domain "},
    };
    for (const auto &c : cases) {
        const auto result = qxbus_test::runQxbus(c.args, root.path());
        EXPECT_EQ(result.status, c.status) << c.says << "\n" << result.err;
        EXPECT_NE((c.status == 0 ? result.out : result.err).find(c.says), std::string::npos) << result.err;
        if (c.status != 0) EXPECT_EQ(result.out, "") << c.says;
    }
}

TEST(QxbusCommandLine, OptionsReadTheSameInBothSpellings) {
    const auto options = qxbus::parseOptions({"publish", "X", "--flow=", "--wait=0", "--count", "3", "--", "-{}"});
    EXPECT_EQ(options.flow, ""); // an explicit empty flow is kept, not taken for "no flow given"
    EXPECT_EQ(options.waitSeconds, 0.0);
    EXPECT_EQ(options.count, 3u);
    EXPECT_EQ(options.json, "-{}"); // after "--" a leading dash starts no option
    EXPECT_FALSE(qxbus::parseOptions({"echo", "X"}).flow.has_value());
}

} // namespace
