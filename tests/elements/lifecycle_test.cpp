// qxedgesrc as applications stop and restart it. Guards against a stop that
// hangs while the source waits for its first frame (from another thread, or
// Ctrl-C on gst-launch -e), buffers pushed without a received frame, one
// source's stop or restart changing what another in the same process
// delivers, and a restarted source that delivers nothing or stale frames.

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
    const auto begin = std::chrono::steady_clock::now();
    auto stopping = std::async(std::launch::async, [&] { return subscriber.stop(); });
    ASSERT_EQ(stopping.wait_for(1s), std::future_status::ready) << "set_state(NULL) did not return within 1 s";
    EXPECT_EQ(stopping.get(), GST_STATE_CHANGE_SUCCESS);
    std::printf("[ stop ] %lld ms\n", static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now() - begin)
                                          .count()));

    auto launch = startLaunch(root, {"-e", "qxedgesrc", "!", "fakesink"});
    ASSERT_TRUE(launch->waitForOutput("waiting for marlet data...", 30s)) << launch->err();
    launch->terminate(SIGINT);
    const int status = launch->wait(2s);
    EXPECT_TRUE(status == 0 || status == 1) << "status " << status << "\n" << launch->out() << launch->err();
}

// Pulls n buffers (or what comes in 20 s); every one must carry a frame of this run.
std::vector<int> pullFrames(Subscriber &subscriber, int n, const std::string &stream) {
    std::vector<int> ids;
    Received r;
    for (auto deadline = std::chrono::steady_clock::now() + 20s;
         static_cast<int>(ids.size()) < n && std::chrono::steady_clock::now() < deadline;) {
        if (!subscriber.pull(r, 200ms)) continue;
        EXPECT_FALSE(r.bgr.empty()) << "a buffer without a picture";
        EXPECT_EQ(r.frames.size(), 1u) << "a buffer without a received frame";
        if (r.frames.size() == 1) {
            EXPECT_EQ(r.frames.front().stream_id, stream);
            ids.push_back(r.id());
        }
    }
    return ids;
}

// Two sources in one process on one publisher: one is stopped and started
// again while the other keeps going.
TEST(SrcLifecycle, RestartingOneOfTwoSourcesLeavesTheOtherAlone) {
    qxtest::ConfigRoot root;
    root.enter();
    Subscriber first("taggroups=uni", kCaps);
    Subscriber second("pairing=frame-id taggroups=uni", kCaps);
    first.start();
    second.start();
    auto publisher = startPublisher(root, {"I420", 240, "two", "uni"});

    const auto before = pullFrames(first, 10, "two");
    ASSERT_EQ(before.size(), 10u);
    ASSERT_EQ(pullFrames(second, 10, "two").size(), 10u);
    ASSERT_EQ(first.stop(), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(pullFrames(second, 20, "two").size(), 20u) << "the other source stopped delivering";
    first.start();
    const auto after = pullFrames(first, 10, "two");
    ASSERT_EQ(after.size(), 10u) << "the restarted source delivers nothing";
    EXPECT_GT(after.front(), before.back()) << "frames from before the restart came out again";
    EXPECT_EQ(pullFrames(second, 10, "two").size(), 10u);
    publisher->terminate();
}

} // namespace
