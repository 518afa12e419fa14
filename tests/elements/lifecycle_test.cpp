// qxedgesrc as applications stop and restart it. Guards against a stop that
// hangs while the source waits for its first frame (set_state(NULL) from
// another thread, or Ctrl-C on gst-launch -e), buffers pushed without a
// received frame, one source's stop or restart changing what another in the
// same process delivers, and a restarted source that delivers nothing or
// stale frames.

#include <gtest/gtest.h>

#include <csignal>
#include <future>

#include "element_support.h"

namespace {

using namespace elemtest;
const std::string kCaps = "video/x-raw,format=I420,width=320,height=240,framerate=30/1";

TEST(SrcLifecycle, StoppingASourceThatWaitsForItsFirstFrame) {
    qxtest::ConfigRoot root;
    root.enter();
    Subscriber subscriber(std::string("taggroups=") + srcexpect::kResultGroups, kCaps);
    // The application's thread never sits in the state change: PLAYING returns
    // at once while the source stays in READY to PAUSED.
    EXPECT_EQ(subscriber.start(), GST_STATE_CHANGE_ASYNC);
    EXPECT_TRUE(subscriber.waitingForFirstFrame());
    auto stopping = std::async(std::launch::async, [&] { return subscriber.stop(); });
    ASSERT_EQ(stopping.wait_for(1s), std::future_status::ready) << "set_state(NULL) did not return within 1 s";
    EXPECT_EQ(stopping.get(), GST_STATE_CHANGE_SUCCESS);

    auto launch = startLaunch(root, {"-e", "qxedgesrc", "!", "fakesink"});
    ASSERT_TRUE(launch->waitForOutput("waiting for marlet data...", 30s)) << launch->err();
    launch->terminate(SIGINT);
    const int status = launch->wait(2s);
    EXPECT_TRUE(status == 0 || status == 1) << "status " << status << "\n" << launch->out() << launch->err();
}

// Two sources in one process on one publisher: one is stopped and started
// again while the other keeps going; no buffer of either lacks a frame.
TEST(SrcLifecycle, RestartingOneOfTwoSourcesLeavesTheOtherAlone) {
    qxtest::ConfigRoot root;
    root.enter();
    Subscriber first("taggroups=uni", kCaps);
    Subscriber second("pairing=frame-id taggroups=uni", kCaps);
    first.start();
    second.start();
    auto publisher = startPublisher(root, {"I420", 240, "two", "uni"});
    const auto next = [](Subscriber &s, std::size_t n) { return pull(s, "two", {-1, n, 20s}); };

    const auto before = next(first, 10);
    ASSERT_EQ(before.size(), 10u);
    ASSERT_EQ(next(second, 10).size(), 10u);
    ASSERT_EQ(first.stop(), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(next(second, 20).size(), 20u) << "the other source stopped delivering";
    first.start();
    const auto after = next(first, 10);
    ASSERT_EQ(after.size(), 10u) << "the restarted source delivers nothing";
    EXPECT_GT(after.front().id(), before.back().id()) << "frames from before the restart came out again";
    EXPECT_EQ(next(second, 10).size(), 10u);
    publisher->terminate();
}

} // namespace
