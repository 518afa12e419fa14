// Command-line handling: what is accepted, and that every mistake ends with a
// message naming it and exit code 2 before anything touches the bus.

#include <gtest/gtest.h>

#include "errors.h"
#include "options.h"
#include "qxtest/config_root.h"
#include "tool_runner.h"

namespace {

using qxbus::Command;
using qxbus::Options;

struct RejectedCase {
    const char *label;
    std::vector<std::string> args;
    const char *message;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const RejectedCase &c, std::ostream *os) { *os << c.label; }

class RejectedArguments : public ::testing::TestWithParam<RejectedCase> {};

TEST_P(RejectedArguments, ExitWithCodeTwoAndSayWhatIsWrong) {
    const qxtest::ConfigRoot root;
    const auto &c = GetParam();
    const auto result = qxbus_test::runQxbus(c.args, root.path());
    EXPECT_EQ(result.status, 2) << result.err;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << "stderr: " << result.err;
    EXPECT_EQ(result.out, "");
}

const RejectedCase kRejected[] = {
    {"NoCommand", {}, "no command given"},
    {"UnknownCommand", {"frobnicate"}, "unknown command \"frobnicate\""},
    {"EchoWithoutGroup", {"echo"}, "echo needs a tag group"},
    {"PublishWithoutRecord", {"publish", "DetectionBoxData"}, "publish needs a tag group and a JSON record"},
    {"UnknownOption", {"list", "--bogus"}, "unknown option --bogus"},
    {"OptionOfAnotherCommand", {"list", "--json"}, "option --json does not apply to list"},
    {"FlagWithValue", {"echo", "DetectionBoxData", "--json=yes"}, "--json takes no value"},
    {"ZeroCount", {"echo", "DetectionBoxData", "--count", "0"}, "--count needs a positive whole number"},
    {"CountWithLetters", {"echo", "DetectionBoxData", "--count", "3x"}, "--count needs a positive whole number"},
    {"NegativeTimeout", {"echo", "DetectionBoxData", "--timeout", "-1"}, "--timeout needs a number of seconds above 0"},
    {"MissingValue", {"echo", "DetectionBoxData", "--timeout"}, "--timeout needs a value"},
    {"ExtraArgument", {"echo", "DetectionBoxData", "extra"}, "unexpected argument \"extra\""},
    {"RootWithoutConfig", {"--root", "/nonexistent", "list"}, "--root /nonexistent: no config/Marlet.xml there"},
    {"UnknownTagGroup", {"echo", "NoSuchGroup"}, "unknown tag group \"NoSuchGroup\""},
    {"BrokenJson", {"publish", "DetectionBoxData", "{not json"}, "not valid JSON"},
    {"JsonNotAnObject", {"publish", "DetectionBoxData", "[1,2]"}, "must be a JSON object"},
    {"NegativeUnsignedField", {"publish", "DetectionBoxData", R"({"frame_id": -1})"}, "does not fit uint32"},
    {"FractionInUnsignedField",
     {"publish", "DetectionBoxData", R"({"frame_id": 1.5})"},
     "expected a whole number for uint32"},
    {"TextInUnsignedField", {"publish", "DetectionBoxData", R"({"frame_id": "7"})"}, "expected a whole number"},
    {"MisspeltField", {"publish", "DetectionBoxData", R"({"frme_id": 1})"}, "not a field of this tag group"},
    {"BooleanValue", {"publish", "DetectionBoxData", R"({"data": [true]})"}, "has no value kind"},
    {"ByteOutOfRange",
     {"publish", "SegmentationData", R"({"data": [{"data": {"byte_seq": [1, 256]}}]})"},
     "does not fit a byte"},
};

INSTANTIATE_TEST_SUITE_P(Qxbus, RejectedArguments, ::testing::ValuesIn(kRejected),
                         [](const auto &info) { return std::string(info.param.label); });

TEST(QxbusHelp, PrintsUsageAndExitsZero) {
    const qxtest::ConfigRoot root;
    for (const std::vector<std::string> &args : {std::vector<std::string>{"--help"}, {"echo", "--help"}, {"-h"}}) {
        const auto result = qxbus_test::runQxbus(args, root.path());
        EXPECT_EQ(result.status, 0) << args.front();
        for (const char *word :
             {"Usage: qxbus", "list", "echo <TagGroup>", "stats", "publish <TagGroup> <json>", "Exit codes"})
            EXPECT_NE(result.out.find(word), std::string::npos) << word;
    }
}

TEST(QxbusOptions, ReadsValuesInBothSpellings) {
    const Options echo = qxbus::parseOptions(
        {"echo", "VideoFrameData", "--timeout=2.5", "--count", "3", "--json", "--flow", "cam1", "--root", "/r"});
    EXPECT_EQ(echo.command, Command::echo);
    EXPECT_EQ(echo.tagGroup, "VideoFrameData");
    EXPECT_DOUBLE_EQ(echo.timeoutSeconds.value_or(0), 2.5);
    EXPECT_EQ(echo.count.value_or(0), 3u);
    EXPECT_TRUE(echo.jsonOutput);
    EXPECT_EQ(echo.flow.value_or(""), "cam1");
    EXPECT_EQ(echo.root, "/r");

    const Options publish = qxbus::parseOptions({"publish", "--flow=", "--wait", "0", "X", "--", "-{}"});
    EXPECT_EQ(publish.command, Command::publish);
    ASSERT_TRUE(publish.flow.has_value());
    EXPECT_EQ(*publish.flow, ""); // an explicit empty flow is kept, not taken for "no flow given"
    EXPECT_DOUBLE_EQ(publish.waitSeconds, 0.0);
    EXPECT_EQ(publish.tagGroup, "X");
    EXPECT_EQ(publish.json, "-{}");

    EXPECT_FALSE(qxbus::parseOptions({"echo", "X"}).flow.has_value());
}

} // namespace
