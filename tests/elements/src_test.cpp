// qxedgesrc as applications use it: publishers in child processes, sources in
// this process, on a private bus. Guards against pictures or results delivered
// wrong, paired with another frame or publisher, lost, repeated or out of
// order; buffers without a received frame; output formats and odd sizes;
// context ids not keeping streams apart; a source's restart failing or
// disturbing the others; encoded pictures altered; a stream without a frame
// rate not ending; a stop that hangs while the source waits for its first frame.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <future>

#include <opencv2/imgproc.hpp>

#include "element_support.h"

namespace {

using namespace elemtest;
using srcexpect::kResultGroups;

std::string caps(const std::string &format, int width = 320, int height = 240, const char *rate = "30/1") {
    return "video/x-raw,format=" + format + ",width=" + std::to_string(width) + ",height=" + std::to_string(height) +
           ",framerate=" + rate;
}

bool ownResults(const Received &r, const std::string &stream, int width = 320, int height = 240) {
    return srcexpect::sameWithResults(r.frames.front(), srcexpect::frame(r.id(), stream, width, height)) &&
           r.devices.size() == 1 && srcexpect::same(r.devices.front(), srcexpect::device());
}

// The buffer holds its frame's picture (and not its neighbour's): mean
// difference per byte after the conversions on the way below tolerance. The
// bus carries B,G,R bytes under the RGB token and the I420 writer reads R,G,B
// (both kept on purpose), so I420 output has red and blue exchanged.
void expectPicture(const Received &r, const std::vector<cv::Mat> &reference, const std::string &format,
                   double tolerance = 4.0) {
    const auto delivered = [&](int id) {
        cv::Mat picture = reference.at(id).clone();
        if (format == "I420") cv::cvtColor(picture, picture, cv::COLOR_BGR2RGB);
        return picture;
    };
    const cv::Mat picture = r.bgr();
    const double diff = meanAbsDiff(picture, delivered(r.id()));
    EXPECT_LT(diff, tolerance) << format << " frame " << r.id();
    if (r.id() + 1 < static_cast<int>(reference.size()))
        EXPECT_GT(meanAbsDiff(picture, delivered(r.id() + 1)), diff) << "the neighbour's picture";
}

// Separate tag groups: one publisher (600 frames at 30 fps, context id cam-a)
// and six sources in this process. Frame-id pairing in BGR, I420 and NV12
// delivers every frame once, in order, with its own results; the
// synchroniser's pairing delivers pictures and, where it found them, their own
// results (its share is printed, not asserted: its walk can lose results for a
// while); a source stopped and started again mid-stream delivers new frames
// with theirs, and the others do not notice; a source on context cam-b
// receives nothing.
TEST(SrcDelivery, SeparateGroupsToEverySourceAtOnce) {
    constexpr int kFrames = 600;
    qxtest::ConfigRoot root;
    root.enter();
    PublisherRun run{"BGR", kFrames, "exact", srcexpect::kAllGroupsWithVideo, "cam-a"};
    run.readers = 6; // every frame counts: the five sources and the one of another context
    const auto reference = referenceFrames(run.source());
    const std::string exact = std::string("pairing=frame-id taggroups=") + kResultGroups;
    const std::vector<std::pair<std::string, std::string>> sources = {
        {"BGR", exact + " context-id=cam-a"},
        {"I420", exact},
        {"NV12", exact},
        {"BGR", std::string("taggroups=") + kResultGroups},
        {"BGR", exact}};
    const std::size_t compatible = 3, restarted = 4;
    std::vector<std::unique_ptr<Subscriber>> subscribers;
    // The metadata must survive what applications put after the source: a tee and a conversion.
    const std::string throughTeeAndConversion = " ! tee ! queue ! videoconvert ! video/x-raw,format=BGR";
    for (const auto &[format, props] : sources) {
        subscribers.push_back(
            std::make_unique<Subscriber>(props, caps(format) + (format == "NV12" ? throughTeeAndConversion : "")));
        EXPECT_EQ(subscribers.back()->start(), GST_STATE_CHANGE_ASYNC);
    }
    Subscriber otherContext(std::string("context-id=cam-b taggroups=") + kResultGroups, caps("BGR"));
    otherContext.start();
    auto publisher = startPublisher(root, run);
    int lastBeforeRestart = -1;
    std::vector<std::future<std::vector<Received>>> runs;
    for (std::size_t k = 0; k < sources.size(); ++k)
        runs.push_back(std::async(std::launch::async, [&, k, s = subscribers[k].get()] {
            if (k == restarted) { // what comes before the restart is checked only for its last frame
                const auto before = pull(*s, "exact", {-1, 60, 60s});
                lastBeforeRestart = before.empty() ? kFrames : before.back().id();
                s->stop();
                s->start();
            }
            return pull(*s, "exact", {kFrames - 1, 0, 120s, publisher.get()});
        }));
    EXPECT_EQ(publisher->wait(90s), 0) << publisher->err();

    for (std::size_t k = 0; k < sources.size(); ++k) {
        const auto received = runs[k].get();
        SCOPED_TRACE(sources[k].first + (k == compatible  ? " compatible"
                                         : k == restarted ? " restarted"
                                                          : " frame-id"));
        const auto matched =
            std::count_if(received.begin(), received.end(), [](auto &r) { return ownResults(r, "exact"); });
        if (k == restarted) {
            ASSERT_FALSE(received.empty()) << "the restarted source delivers nothing";
            EXPECT_GT(received.front().id(), lastBeforeRestart) << "frames from before the restart came out again";
            EXPECT_EQ(received.back().id(), kFrames - 1);
            // Its readers match the publisher one by one again: the first frames may come before their results.
            EXPECT_TRUE(std::all_of(received.begin() + std::min<std::size_t>(10, received.size()), received.end(),
                                    [](auto &r) { return ownResults(r, "exact"); }))
                << "frames without all their own results";
        } else if (k != compatible) {
            ASSERT_EQ(received.size(), static_cast<std::size_t>(kFrames));
            for (std::size_t i = 0; i < received.size(); ++i)
                ASSERT_EQ(received[i].id(), static_cast<int>(i)) << "out of order, repeated or skipped";
            EXPECT_EQ(matched, kFrames) << "frames without all their own results";
        } else {
            std::printf("[ compatible ] %zu buffers, %ld of %d frames with all their own results\n", received.size(),
                        static_cast<long>(matched), kFrames);
            for (const Received &r : received) // whatever was paired belongs to the frame
                EXPECT_TRUE(
                    srcexpect::sameWithResults(r.frames.front(), srcexpect::frame(r.id(), "exact", 320, 240), true));
        }
        // Converting back is the test's dearest part: every 20th picture.
        for (std::size_t i = 0; i < received.size(); i += 20)
            expectPicture(received[i], reference, sources[k].first);
    }
    EXPECT_EQ(subscribers[0]->stat("frames-delivered"), static_cast<std::uint64_t>(kFrames));
    EXPECT_EQ(subscribers[0]->stat("results-matched"), 3u * kFrames) << "stats do not count the results paired";
    EXPECT_TRUE(otherContext.waitingForFirstFrame()) << "a frame of another context reached the source";
}

// Combined records at an odd picture size, both ways: the publisher converts
// NV12 321x241, the sources write odd I420, NV12 and BGR frames; every buffer
// carries its own results. A source without a frame rate delivers one buffer
// and ends the stream.
TEST(SrcDelivery, CombinedRecordsAtAnOddSize) {
    constexpr int kFrames = 40;
    qxtest::ConfigRoot root;
    root.enter();
    PublisherRun run{"NV12", kFrames, "odd", "uni"};
    run.width = 321;
    run.height = 241;
    const auto reference = referenceFrames(run.source());
    std::vector<std::pair<std::string, std::unique_ptr<Subscriber>>> sources;
    for (const char *format : {"I420", "NV12", "BGR"}) // frame-id pairing for NV12: combined records pass it by
        sources.emplace_back(format, std::make_unique<Subscriber>(std::string(format) == "NV12"
                                                                      ? "pairing=frame-id taggroups=uni"
                                                                      : "taggroups=uni",
                                                                  caps(format, 321, 241)));
    Subscriber single("taggroups=uni", caps("BGR", 321, 241, "0/1"));
    for (auto &[format, source] : sources)
        source->start();
    single.start();
    auto publisher = startPublisher(root, run);
    std::vector<std::future<std::vector<Received>>> runs;
    for (auto &[format, source] : sources)
        runs.push_back(std::async(std::launch::async, [&, s = source.get()] {
            return pull(*s, "odd", {kFrames - 1, 0, 60s, publisher.get()});
        }));
    EXPECT_EQ(publisher->wait(60s), 0) << publisher->err();
    for (std::size_t k = 0; k < sources.size(); ++k) {
        const auto received = runs[k].get();
        ASSERT_FALSE(received.empty()) << sources[k].first;
        EXPECT_EQ(received.back().id(), kFrames - 1);
        for (const Received &r : received) {
            EXPECT_TRUE(ownResults(r, "odd", 321, 241)) << sources[k].first << " frame " << r.id();
            // Odd sizes go through one more rounding on the way (the last column and row).
            expectPicture(r, reference, sources[k].first, 5.0);
        }
    }
    Received first, more;
    ASSERT_TRUE(single.pull(first, 10s));
    EXPECT_EQ(first.frames.size(), 1u);
    EXPECT_FALSE(single.pull(more, 2s)) << "a second buffer without a frame rate";
}

// Encoded pictures leave the source exactly as the publisher's encoder made
// them (equal sizes too: anything after the picture would be read as part of
// it). Two publishers at once, kept apart by their context ids.
TEST(SrcDelivery, EncodedPicturesPassThroughByteForByte) {
    constexpr int kFrames = 20;
    qxtest::ConfigRoot root;
    root.enter();
    const std::vector<std::pair<PublisherRun, const char *>> encoded = {
        {{"I420", kFrames, "jpeg", srcexpect::kAllGroupsWithVideo, "jpeg", "jpegenc"}, "image/jpeg"},
        {{"RGB", kFrames, "png", srcexpect::kAllGroupsWithVideo, "png", "pngenc"}, "image/png,framerate=30/1"}};
    std::vector<std::unique_ptr<Subscriber>> sources;
    std::vector<std::unique_ptr<qxtest::ChildProcess>> publishers;
    for (const auto &[run, caps] : encoded) {
        sources.push_back(std::make_unique<Subscriber>("context-id=" + run.contextId, caps));
        sources.back()->start();
    }
    for (const auto &[run, caps] : encoded)
        publishers.push_back(startPublisher(root, run));
    for (std::size_t k = 0; k < encoded.size(); ++k) {
        SCOPED_TRACE(encoded[k].first.stream);
        const auto reference = referenceEncoded(encoded[k].first.source());
        const auto received = pull(*sources[k], encoded[k].first.stream, {kFrames - 1, 0, 60s, publishers[k].get()});
        EXPECT_EQ(publishers[k]->wait(60s), 0) << publishers[k]->err();
        ASSERT_FALSE(received.empty());
        for (const Received &r : received) {
            EXPECT_TRUE(r.frames.front().is_compress);
            EXPECT_TRUE(r.bytes() == reference.at(r.id()))
                << "frame " << r.id() << " differs from the published picture";
        }
    }
}

// Stopping a source that still waits for its first frame, as applications do:
// set_state(NULL) from another thread, or Ctrl-C on gst-launch -e.
TEST(SrcLifecycle, StoppingASourceThatWaitsForItsFirstFrame) {
    qxtest::ConfigRoot root;
    root.enter();
    Subscriber subscriber(std::string("taggroups=") + srcexpect::kResultGroups, caps("I420"));
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

} // namespace
