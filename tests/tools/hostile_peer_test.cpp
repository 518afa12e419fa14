// A peer that writes samples whose payload does not decode: echo reports each
// and goes on with the good records after it.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "raw_writer.h"
#include "tool_runner.h"

namespace {

TEST(QxbusEcho, SkipsSamplesThatDoNotDecodeAndKeepsReading) {
    const qxtest::ConfigRoot root;
    qxtest::ChildProcess echo(
        qxbus_test::qxbusArgv({"echo", "SegmentationData", "--json", "--count", "1", "--timeout", "100"}), root.path());
    const marlettest::RawWriter peer(root, "com/vision/data/SegmentationData", "flow.x");
    ASSERT_TRUE(peer.waitForReader(600)) << "echo's reader never matched";
    const char *group = "com.vision.data:SegmentationData";
    peer.write({0x00}, "x", group);                        // wrong magic byte
    peer.write({0xB7, 0x01, 0x05}, "x", group);            // claims five pairs, holds none
    peer.write({0xB7, 0x01, 0x01, 0x02, 'i'}, "x", group); // a name cut short

    const auto good = qxbus_test::runQxbus(
        {"publish", "SegmentationData", R"({"engine_id": "after"})", "--flow", "x", "--wait", "60"}, root.path());
    ASSERT_EQ(good.status, 0) << good.err;

    ASSERT_EQ(echo.wait(std::chrono::seconds(120)), 0) << echo.err();
    const auto received = qxbus_test::lines(echo.out());
    ASSERT_EQ(received.size(), 1u) << echo.out();
    EXPECT_EQ(nlohmann::json::parse(received[0]).at("record").at("engine_id"), "after");
    std::size_t reported = 0;
    for (std::size_t at = 0; (at = echo.err().find("skipped a sample that does not decode", at)) != std::string::npos;
         ++at)
        ++reported;
    EXPECT_EQ(reported, 3u) << echo.err();
}

} // namespace
