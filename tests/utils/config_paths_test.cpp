// Configuration discovery, URIs, thing ids and properties rewriting, and the
// name hash.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "utils.h"

namespace fs = std::filesystem;

// FNV-1a as every peer and every switch in the plug-in computes it: the empty
// name gives the offset basis, longer names pin every step after it.
static_assert(hash_("") == 0xcbf29ce484222325ULL);
static_assert(hash_("VideoFrameData") == 0x67a13f833ab5e2f9ULL);
static_assert(hash_("uni") == 0x4cada8193e198449ULL);
static_assert(hash_("I420") == 0x2909acd05ec97002ULL);

namespace {

// A private temporary directory made the working directory, with IXO_ROOT
// saved and cleared; both are restored afterwards because the test binary is
// shared with other suites.
class RecordsConfigPaths : public ::testing::Test {
  protected:
    void SetUp() override {
        oldCwd_ = fs::current_path();
        if (const char *root = std::getenv("IXO_ROOT")) oldRoot_ = root;
        hadRoot_ = std::getenv("IXO_ROOT") != nullptr;
        unsetenv("IXO_ROOT");
        dir_ = fs::temp_directory_path() / ("qxrecords-" + std::to_string(getpid()) + "-" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        fs::current_path(dir_);
        // Names no installed configuration root holds.
        unique_ = "qxrecords-" + std::to_string(getpid());
    }
    void TearDown() override {
        fs::current_path(oldCwd_);
        if (hadRoot_)
            setenv("IXO_ROOT", oldRoot_.c_str(), 1);
        else
            unsetenv("IXO_ROOT");
        fs::remove_all(dir_);
    }

    static void touch(const fs::path &p, const std::string &text = "{}") {
        if (p.has_parent_path()) fs::create_directories(p.parent_path());
        std::ofstream(p) << text;
    }

    std::vector<std::string> files() const { return {unique_ + "/config/a.json", unique_ + "-b.xml"}; }
    void populate(const fs::path &root) const {
        for (const auto &f : files())
            touch(root / f);
    }

    fs::path dir_;
    fs::path oldCwd_;
    std::string oldRoot_;
    bool hadRoot_ = false;
    std::string unique_;
};

const char *const kProperties = "{\n"
                                "    \"thingId\": \"old-thing-id\",\n"
                                "    \"thingClass\": \"com.vision.data:VideoFrameThingOut\",\n"
                                "    \"contextId\": \"default\",\n"
                                "    \"name\": \"camera\"\n"
                                "}\n";

const std::regex kIdShape("^[0-9a-f]+-[0-9a-f]+-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]+$");

long long millisecondOfClock() {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count() / 1000000;
}

} // namespace

TEST(RecordsPaths, JoinAndCombine) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> joins = {
        {{}, ""},
        {{"single"}, "single"},
        {{"a", "b", "c"}, "a/b/c"},
        {{"file:/", "/opt/quorix/ixo"}, "file:///opt/quorix/ixo"},
        {{"file:/", "."}, "file://."},
        {{"", "x"}, "/x"},
    };
    for (const auto &[parts, expected] : joins)
        EXPECT_EQ(path_join(parts), expected);

    EXPECT_EQ(combine_paths("file://.", {"config/Marlet.xml", "definitions/x.json"}),
              (std::vector<std::string>{"file://./config/Marlet.xml", "file://./definitions/x.json"}));
    EXPECT_TRUE(combine_paths("p", {}).empty());
}

TEST_F(RecordsConfigPaths, FileExistenceCoversAnyKindOfEntry) {
    touch("f.txt");
    fs::create_directory("d");
    EXPECT_TRUE(is_file_exist("f.txt"));
    EXPECT_TRUE(is_file_exist("d"));
    EXPECT_TRUE(is_file_exist(dir_.string()));
    EXPECT_FALSE(is_file_exist("missing"));
    EXPECT_FALSE(is_file_exist("f.txt/below"));
}

TEST_F(RecordsConfigPaths, SearchOrderEndsWithIxoRoot) {
    const fs::path extra = dir_ / "extra-root";
    struct Case {
        const char *what;
        bool inCwd;
        bool inCommon;
        bool inExtra;
        bool setExtra;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"working directory first", true, true, true, true, "."},
        {"shipped tree under the working directory", false, true, true, true, "./common/data_model"},
        {"IXO_ROOT when nothing else is complete", false, false, true, true, extra.string()},
        {"IXO_ROOT ignored while unset", false, false, true, false, ""},
        {"nowhere", false, false, false, true, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(dir_ / unique_);
        fs::remove(dir_ / (unique_ + "-b.xml"));
        fs::remove_all(dir_ / "common");
        fs::remove_all(extra);
        if (c.inCwd) populate(dir_);
        if (c.inCommon) populate(dir_ / "common/data_model");
        if (c.inExtra) populate(extra);
        if (c.setExtra)
            setenv("IXO_ROOT", extra.c_str(), 1);
        else
            unsetenv("IXO_ROOT");
        EXPECT_EQ(search_files(files()), c.expected);
    }
}

TEST_F(RecordsConfigPaths, RootMustHoldEveryFile) {
    const fs::path extra = dir_ / "extra-root";
    touch(dir_ / files()[0]);
    touch(extra / files()[1]);
    setenv("IXO_ROOT", extra.c_str(), 1);
    EXPECT_EQ(search_files(files()), "");
    touch(extra / files()[0]);
    EXPECT_EQ(search_files(files()), extra.string());
}

TEST_F(RecordsConfigPaths, ThingIdIsWrittenIntoTheFirstValue) {
    touch("config/props.json", kProperties);
    // The URI as the session builds it for the root ".".
    const std::string text = autoGenerateTingID("file://./config/props.json", true);
    const std::string head = "{\n    \"thingId\": \"";
    ASSERT_EQ(text.compare(0, head.size(), head), 0) << text;
    const std::size_t end = text.find('"', head.size());
    const std::string id = text.substr(head.size(), end - head.size());
    EXPECT_TRUE(std::regex_match(id, kIdShape)) << id;
    EXPECT_EQ(text.substr(end),
              std::string(kProperties).substr(std::string(kProperties).find("\",\n    \"thingClass")));

    // Absolute roots give three slashes after "file:"; the path survives the stripping.
    const std::string absolute = path_join({"file:/", (dir_ / "config/props.json").string()});
    EXPECT_NE(autoGenerateTingID(absolute, false).find("\"contextId\": \"default\""), std::string::npos);
}

TEST_F(RecordsConfigPaths, ThingIdReportsFilesThatCannotBeOpened) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"file://./config/none.json", "[OPEN ERROR] ./config/none.json in autoGenerateTingID\n"},
        {"file:/", "[OPEN ERROR]  in autoGenerateTingID\n"},
    };
    for (const auto &[uri, message] : cases) {
        testing::internal::CaptureStdout();
        const std::string text = autoGenerateTingID(uri, true);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), message);
        EXPECT_EQ(text, "");
    }
    touch("config/nocolon.json", "no key here");
    EXPECT_THROW(autoGenerateTingID("file://./config/nocolon.json", true), std::out_of_range);
}

TEST_F(RecordsConfigPaths, ContextIdIsWrittenIntoItsValue) {
    const std::string expected =
        std::string(kProperties).replace(std::string(kProperties).find("default"), 7, "flow-9");
    EXPECT_EQ(replace_thing_property_context_id(kProperties, "flow-9", false), expected);

    touch("config/props.json", kProperties);
    EXPECT_EQ(replace_thing_property_context_id("file://./config/props.json", "flow-9", true), expected);
    EXPECT_EQ(replace_thing_property_context_id("{\"contextId\":\"\"}", "x", false), "{\"contextId\":\"x\"}");

    // No key, or no file: an error the session reports as a properties failure.
    EXPECT_THROW(replace_thing_property_context_id("{\"ContextId\": \"a\"}", "x", false), std::out_of_range);
    EXPECT_THROW(replace_thing_property_context_id("{\"contextId\": ", "x", false), std::out_of_range);
    EXPECT_EQ(replace_thing_property_context_id("file://./config/none.json", "x", true), "");
}

TEST(RecordsThingId, ShapeAndSameMillisecondEquality) {
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(std::regex_match(generateUUID(), kIdShape));

    // Ids made within one millisecond value are equal: find a pair whose
    // clock readings on both sides show the same millisecond.
    bool seen = false;
    for (int attempt = 0; attempt < 1000 && !seen; ++attempt) {
        const long long before = millisecondOfClock();
        const std::string a = generateUUID();
        const std::string b = generateUUID();
        if (millisecondOfClock() != before) continue;
        EXPECT_EQ(a, b);
        seen = true;
    }
    EXPECT_TRUE(seen);

    // Ids made two milliseconds apart differ.
    const std::string a = generateUUID();
    const long long after = millisecondOfClock();
    while (millisecondOfClock() <= after + 1)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    EXPECT_NE(generateUUID(), a);
}
