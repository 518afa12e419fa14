// Guards configuration discovery and the texts made before the bus opens: a
// root searched in the wrong order or taken while incomplete, a misleading
// account of what is missing, a "file:" URI read at the wrong path, ids written
// into the wrong place of a properties file.

#include <cstdlib>
#include <regex>
#include <stdexcept>

#include <gtest/gtest.h>

#include "modelloader.h"
#include "qxtest/config_root.h"
#include "utils.h"

// FNV-1a as every peer and every switch in the plug-in computes it: the empty
// name gives the offset basis, longer names pin every step after it.
static_assert(hash_("") == 0xcbf29ce484222325ULL);
static_assert(hash_("VideoFrameData") == 0x67a13f833ab5e2f9ULL);

static const std::regex kIdShape("^[0-9a-f]+-[0-9a-f]+-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]+$");

// Roots: the working directory, ./common/data_model, then $IXO_ROOT; file
// names that no installed root holds. Bit 1 and bit 2 say which of the two
// files a root holds.
TEST(RecordsPaths, FirstCompleteRootWinsAndTheMissingFilesAreNamed) {
    const std::vector<std::string> files = {"qx-test-only/config/a.json", "qx-test-only-b.xml"};
    const struct {
        int cwd, common, extra;
        bool setExtra;
        const char *root; // "extra" for $IXO_ROOT
        const char *missing;
    } rows[] = {
        {3, 3, 3, true, ".", ""},
        {0, 3, 3, true, "./common/data_model", ""},
        {1, 2, 3, true, "extra", ""},
        {0, 0, 3, false, "", "missing under every configuration root: qx-test-only/config/a.json, qx-test-only-b.xml"},
        {1, 0, 2, true, "",
         "no configuration root holds all of qx-test-only/config/a.json, qx-test-only-b.xml at once"},
        {1, 1, 0, true, "", "missing under every configuration root: qx-test-only-b.xml"},
    };
    for (const auto &row : rows) {
        qxtest::ConfigRoot dir;
        dir.enter();
        for (const auto &[root, bits] :
             {std::pair<std::string, int>{"", row.cwd}, {"common/data_model/", row.common}, {"extra/", row.extra}}) {
            for (int i = 0; i < 2; ++i)
                if (bits & (1 << i)) dir.writeFile(root + files[i], "{}");
        }
        row.setExtra ? setenv("IXO_ROOT", dir.file("extra").c_str(), 1) : unsetenv("IXO_ROOT");
        const std::string root = search_files(files);
        EXPECT_EQ(root, std::string(row.root) == "extra" ? dir.file("extra") : row.root) << row.missing;
        if (root.empty()) EXPECT_EQ(Edge::describeMissing(files), row.missing);
    }
    unsetenv("IXO_ROOT");
}

TEST(RecordsPaths, IdsAreWrittenIntoTheirValuesOfAPropertiesText) {
    const std::string properties =
        "{\n    \"thingId\": \"old-id\",\n    \"contextId\": \"default\",\n    \"n\": 1\n}\n";
    qxtest::ConfigRoot dir;
    dir.enter();
    dir.writeFile("config/props.json", properties);
    dir.writeFile("config/nocolon.json", "no key here");
    // The thing id is the first value; URIs are made for the root ".", or an
    // absolute root with three slashes after "file:".
    for (const auto &uri :
         std::vector<std::string>{"file://./config/props.json", path_join({"file:/", dir.file("config/props.json")})}) {
        const std::string text = autoGenerateTingID(uri, true);
        const std::size_t at = text.find("\"thingId\": \"") + 12;
        const std::size_t end = text.find('"', at);
        EXPECT_TRUE(std::regex_match(text.substr(at, end - at), kIdShape)) << text;
        EXPECT_EQ(text.substr(0, at) + "old-id" + text.substr(end), properties);
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(autoGenerateTingID("file://./config/none.json", true), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[OPEN ERROR] ./config/none.json in autoGenerateTingID\n");
    EXPECT_THROW(autoGenerateTingID("file://./config/nocolon.json", true), std::out_of_range);
    std::string withFlow = properties;
    withFlow.replace(withFlow.find("default"), 7, "flow-9");
    EXPECT_EQ(replace_thing_property_context_id(properties, "flow-9", false), withFlow);
    EXPECT_EQ(replace_thing_property_context_id("file://./config/props.json", "flow-9", true), withFlow);
    EXPECT_EQ(replace_thing_property_context_id("{\"contextId\":\"\"}", "x", false), "{\"contextId\":\"x\"}");
    // No key, or no file: the session then reports a properties failure.
    EXPECT_THROW(replace_thing_property_context_id("{\"ContextId\": \"a\"}", "x", false), std::out_of_range);
    EXPECT_THROW(replace_thing_property_context_id("{\"contextId\": ", "x", false), std::out_of_range);
    EXPECT_EQ(replace_thing_property_context_id("file://./config/none.json", "x", true), "");
}
