// qxedgesrc as applications use it: stopped while it waits, restarted, two in
// one process, and bad data on the bus beside good frames. Guards against
// hangs on stop, buffers that carry no received frame, one element's stop
// leaking into another, and a stream ended by hostile samples.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

#include "frame_information.h"
#include "modelloader.h"
#include "src_expected.h"
#include "src_support.h"

using namespace std::chrono_literals;
using srctest::Received;
using srctest::Subscriber;

namespace {

const std::string kCaps = "video/x-raw,format=I420,width=320,height=240,framerate=30/1";

// Setting the context id announces it on stdout; syncmessage toggles.
TEST(SrcProperties, ContextIdIsAnnouncedAndSyncMessageToggles) {
    srctest::initGst();
    GstElement *src = gst_element_factory_make("qxedgesrc", nullptr);
    ASSERT_NE(src, nullptr);
    testing::internal::CaptureStdout();
    g_object_set(src, "context-id", "flow-7", "syncmessage", TRUE, nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("context_id_String = flow-7"), std::string::npos);
    gboolean sync = FALSE;
    g_object_get(src, "syncmessage", &sync, nullptr);
    EXPECT_TRUE(sync);
    g_object_set(src, "syncmessage", FALSE, nullptr);
    g_object_get(src, "syncmessage", &sync, nullptr);
    EXPECT_FALSE(sync);
    gst_object_unref(src);
}

// An application stops a source that still waits for its first frame. The
// application's thread never sits in the state change (PLAYING returns ASYNC,
// the source stays in READY to PAUSED), set_state(NULL) from another thread
// returns at once (it used to wait for ever), and gst-launch -e ends on Ctrl-C.
TEST(SrcLifecycle, StoppingASourceThatWaitsForItsFirstFrame) {
    qxtest::ConfigRoot root;
    root.enter();
    Subscriber subscriber(std::string("taggroups=") + srcexpect::kResultGroups, kCaps);
    subscriber.start();
    EXPECT_EQ(subscriber.startResult(), GST_STATE_CHANGE_ASYNC);
    EXPECT_TRUE(subscriber.waitingForFirstFrame());
    auto stopping = std::async(std::launch::async, [&] { return subscriber.stop(); });
    ASSERT_EQ(stopping.wait_for(1s), std::future_status::ready) << "set_state(NULL) did not return within 1 s";
    EXPECT_EQ(stopping.get(), GST_STATE_CHANGE_SUCCESS);

    gchar *program = g_find_program_in_path("gst-launch-1.0");
    ASSERT_NE(program, nullptr);
    qxtest::ChildProcess launch({program, "-e", "qxedgesrc", "!", "fakesink"}, root.path(), srctest::childEnv(root));
    g_free(program);
    ASSERT_TRUE(launch.waitForOutput("waiting for marlet data...", 30s)) << launch.err();
    launch.terminate(SIGINT);
    const int status = launch.wait(2s);
    EXPECT_TRUE(status == 0 || status == 1) << "status " << status << "\n" << launch.out() << launch.err();
}

// Two sources in one process on one publisher, as applications run them: one
// is stopped and started again while the other keeps going. Neither ever
// pushes a buffer without a received frame (stopping one used to make the
// other push empty buffers), the other is not interrupted, and the restarted
// one subscribes anew and delivers the publisher's frames again (it used to
// push thousands of empty buffers).
TEST(SrcLifecycle, RestartingOneOfTwoSourcesLeavesTheOtherAlone) {
    qxtest::ConfigRoot root;
    root.enter();
    Subscriber first("taggroups=uni", kCaps);
    Subscriber second("taggroups=uni", kCaps);
    first.start();
    second.start();
    srctest::PublisherRun run{"I420", 240, "two-sources", "uni"};
    auto publisher = srctest::startPublisher(root, run);

    // Pulls n buffers (or what comes in 20 s); every one must carry a frame of this run.
    auto pullFrames = [](Subscriber &subscriber, int n) {
        std::vector<int> ids;
        Received r;
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (static_cast<int>(ids.size()) < n && std::chrono::steady_clock::now() < deadline) {
            if (!subscriber.pull(r, 200ms)) continue;
            EXPECT_FALSE(r.bgr.empty()) << "a buffer without a picture";
            EXPECT_EQ(r.frames.size(), 1u) << "a buffer without a received frame";
            if (r.frames.size() == 1) {
                EXPECT_EQ(r.frames.front().stream_id, "two-sources");
                ids.push_back(r.frames.front().frame_id);
            }
        }
        return ids;
    };
    const auto before = pullFrames(first, 10);
    ASSERT_EQ(before.size(), 10u);
    ASSERT_EQ(pullFrames(second, 10).size(), 10u);

    ASSERT_EQ(first.stop(), GST_STATE_CHANGE_SUCCESS);
    const auto whileStopped = pullFrames(second, 20);
    EXPECT_EQ(whileStopped.size(), 20u) << "the other source stopped delivering";
    first.start();
    const auto after = pullFrames(first, 10);
    ASSERT_EQ(after.size(), 10u) << "the restarted source delivers nothing";
    EXPECT_GT(after.front(), before.back()) << "frames from before the restart came out again";
    EXPECT_EQ(pullFrames(second, 10).size(), 10u);
    publisher->terminate();
}

// Malformed samples on the bus, written beside a good publisher, never stop
// the source: the good frames keep coming with their own results.
TEST(SrcBadInput, MalformedSamplesDoNotStopDelivery) {
    using com::quorixtech::iot::IOT_NVP;
    using com::quorixtech::iot::IOT_VALUE;
    constexpr int kFrames = 40;
    qxtest::ConfigRoot root;
    root.enter();
    testing::internal::CaptureStdout();
    Subscriber subscriber(std::string("taggroups=") + srcexpect::kResultGroups,
                          "video/x-raw,format=BGR,width=320,height=240,framerate=30/1");
    subscriber.start();

    auto injector = Edge::create("config/Marlet.xml", "config/VideoFrameThingOutProperties.json",
                                 "definitions/ThingClass/com.vision.data/VideoFrameThingOutClass.json",
                                 {"definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json"}, "");
    ASSERT_TRUE(injector);
    std::vector<std::string> groups{"ClassificationData", "DetectionBoxData", "SegmentationData", "DeviceInfoData"};
    ModelLoader::addThingOutByProp(injector, groups);

    auto withValue = [](TOLVIXO::NvpList pairs, const std::string &name, IOT_VALUE value) {
        for (auto &p : pairs)
            if (p.name() == name) p.value(value);
        return pairs;
    };
    IOT_VALUE text;
    text.iotv_string("not a number");
    TOLVIXO::FrameInfo shortFrame;
    shortFrame.frame_id = 3;
    shortFrame.width = 320;
    shortFrame.height = 240;
    shortFrame.channels = 3;
    shortFrame.compression = "com.vision.models.COMPRESSION_KIND_NONE";
    shortFrame.format = "com.vision.models.PIXEL_FORMAT_RGB8";
    shortFrame.data.assign(100, 7);
    shortFrame.size = 100;
    TOLVIXO::FrameInfo noBytes = shortFrame;
    noBytes.data.clear();
    TOLVIXO::FrameInfo noSize = shortFrame;
    noSize.width = 0;
    TOLVIXO::Information<TOLVIXO::ClassificationData> classification;
    classification.frame_id = 5;
    classification.data.push_back({1, "x", "y", 0.5f});
    IOT_VALUE nested;
    nested.iotv_nvp_seq({IOT_NVP("", IOT_VALUE{})});

    const std::vector<std::pair<std::string, TOLVIXO::NvpList>> bad = {
        {"VideoFrameData", withValue(shortFrame.Encode(), "frame_id", text)},
        {"VideoFrameData", shortFrame.Encode()},
        {"VideoFrameData", noBytes.Encode()},
        {"VideoFrameData", noSize.Encode()},
        {"VideoFrameData", withValue(shortFrame.Encode(), "data", nested)},
        {"ClassificationData", withValue(classification.Encode(), "frame_id", text)},
        {"ClassificationData", withValue(classification.Encode(), "data", text)},
        {"DeviceInfoData", {IOT_NVP("port", text)}},
    };

    auto publisher = srctest::startPublisher(root, {"BGR", kFrames, "good"});
    std::atomic<bool> publishing{true};
    std::thread writer([&] {
        while (publishing.load()) {
            for (const auto &[group, pairs] : bad)
                injector->writeSample(group, pairs);
            std::this_thread::sleep_for(20ms);
        }
    });
    const auto received = srctest::collect(subscriber, *publisher, kFrames - 1);
    publishing = false;
    writer.join();
    EXPECT_EQ(publisher->wait(60s), 0) << publisher->err();
    subscriber.stop();
    injector->deinit();
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_NE(out.find("A exception was caught with message"), std::string::npos)
        << "the malformed samples never reached the readers";
    ASSERT_FALSE(received.empty()) << "delivery stopped";
    for (const Received &r : received) {
        ASSERT_EQ(r.frames.size(), 1u);
        const VideoFrameData &got = r.frames.front();
        EXPECT_EQ(got.stream_id, "good");
        EXPECT_EQ(got.width, 320);
        EXPECT_FALSE(r.bgr.empty());
        if (!got.class_results.empty())
            EXPECT_TRUE(
                srcexpect::same(got.class_results, srcexpect::frame(got.frame_id, "good", 320, 240).class_results))
                << "classification of frame " << got.frame_id;
    }
    // Delivery went on to the publisher's last frame.
    ASSERT_EQ(received.back().frames.size(), 1u);
    EXPECT_EQ(received.back().frames.front().frame_id, kFrames - 1);
}

} // namespace
