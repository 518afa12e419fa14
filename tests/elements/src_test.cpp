// qxedgesrc end to end: publishers in child processes, sources in this
// process, on a private bus. Guards against pictures or results delivered
// wrong, paired with another frame or publisher, lost, repeated or out of
// order; output formats and odd sizes; context ids not keeping streams apart;
// encoded pictures altered; a stream without a frame rate not ending.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <future>

#include <opencv2/imgproc.hpp>

#include "element_support.h"

namespace {

using namespace elemtest;
using srcexpect::kResultGroups;

// Mean difference per byte after the colour conversions on the way (to B,G,R
// at the publisher, to the output format at the source, back to B,G,R here).
constexpr double kPictureTolerance = 3.0;

std::string caps(const std::string &format, int width = 320, int height = 240, const char *rate = "30/1") {
    return "video/x-raw,format=" + format + ",width=" + std::to_string(width) + ",height=" + std::to_string(height) +
           ",framerate=" + rate;
}

// The bus carries B,G,R bytes under the RGB token and the I420 writer reads
// R,G,B (both kept on purpose): I420 output has red and blue exchanged.
cv::Mat asDelivered(const cv::Mat &reference, const std::string &format) {
    cv::Mat picture = reference.clone();
    if (format == "I420") cv::cvtColor(picture, picture, cv::COLOR_BGR2RGB);
    return picture;
}

// The buffer holds frame id's picture (and not its neighbour's) and exactly
// the results and device the publisher attached to that frame.
void expectFrame(const Received &r, const std::vector<cv::Mat> &reference, const std::string &format,
                 const std::string &stream, bool resultsRequired, double tolerance = kPictureTolerance) {
    ASSERT_EQ(r.frames.size(), 1u) << "a buffer without a received frame";
    const int id = r.id();
    SCOPED_TRACE(format + " frame " + std::to_string(id));
    ASSERT_TRUE(id >= 0 && id < static_cast<int>(reference.size()));
    const VideoFrameData want = srcexpect::frame(id, stream, reference[id].cols, reference[id].rows);
    const VideoFrameData &got = r.frames.front();
    EXPECT_TRUE(srcexpect::same(got, want));
    const double diff = meanAbsDiff(r.bgr, asDelivered(reference[id], format));
    EXPECT_LT(diff, tolerance);
    if (id + 1 < static_cast<int>(reference.size()))
        EXPECT_GT(meanAbsDiff(r.bgr, asDelivered(reference[id + 1], format)), diff) << "the neighbour's picture";
    if (resultsRequired || !got.class_results.empty())
        EXPECT_TRUE(srcexpect::same(got.class_results, want.class_results));
    if (resultsRequired || !got.det_results.empty()) EXPECT_TRUE(srcexpect::same(got.det_results, want.det_results));
    if (resultsRequired || !got.seg_results.empty()) EXPECT_TRUE(srcexpect::same(got.seg_results, want.seg_results));
    ASSERT_EQ(r.devices.size(), 1u);
    if (resultsRequired) EXPECT_TRUE(srcexpect::same(r.devices.front(), srcexpect::device()));
}

bool ownResults(const Received &r, const std::string &stream) {
    return r.frames.size() == 1 && srcexpect::sameWithResults(r.frames.front(), srcexpect::frame(r.id(), stream, 320, 240));
}

// Separate tag groups: one publisher (600 frames at 30 fps, under context id
// cam-a) and five sources on it at once. Frame-id pairing in BGR, I420 and
// NV12 delivers every frame once, in order, with its own results; the
// synchroniser's pairing delivers its frames' pictures and, where it found
// them, their own results (its share is printed: its walk can lose results for
// a while); a source on context cam-b receives nothing.
TEST(SrcDelivery, SeparateGroupsToEverySourceAtOnce) {
    constexpr int kFrames = 600;
    qxtest::ConfigRoot root;
    root.enter();
    const PublisherRun run{"BGR", kFrames, "exact", srcexpect::kAllGroupsWithVideo, "cam-a"};
    const auto reference = referenceFrames(run.source());
    ASSERT_EQ(reference.size(), static_cast<std::size_t>(kFrames));
    const std::string exact = std::string("pairing=frame-id taggroups=") + kResultGroups;
    std::vector<std::pair<std::string, std::unique_ptr<Subscriber>>> sources;
    sources.emplace_back("BGR", std::make_unique<Subscriber>(exact + " context-id=cam-a", caps("BGR")));
    sources.emplace_back("I420", std::make_unique<Subscriber>(exact, caps("I420")));
    sources.emplace_back("NV12", std::make_unique<Subscriber>(exact, caps("NV12")));
    sources.emplace_back("BGR", std::make_unique<Subscriber>(std::string("taggroups=") + kResultGroups, caps("BGR")));
    Subscriber otherContext(std::string("context-id=cam-b taggroups=") + kResultGroups, caps("BGR"));
    for (auto &[format, source] : sources)
        EXPECT_EQ(source->start(), GST_STATE_CHANGE_ASYNC);
    otherContext.start();
    auto publisher = startPublisher(root, run);
    std::vector<std::future<std::vector<Received>>> runs;
    for (auto &[format, source] : sources)
        runs.push_back(std::async(std::launch::async, [&, s = source.get()] { return collect(*s, *publisher, kFrames - 1); }));
    EXPECT_EQ(publisher->wait(90s), 0) << publisher->err();

    for (std::size_t k = 0; k < sources.size(); ++k) {
        const std::string &format = sources[k].first;
        const auto received = runs[k].get();
        const bool frameExact = k < 3;
        SCOPED_TRACE(format + (frameExact ? " frame-id" : " compatible"));
        if (frameExact) ASSERT_EQ(received.size(), static_cast<std::size_t>(kFrames));
        for (std::size_t i = 0; i < received.size(); ++i) {
            if (frameExact) ASSERT_EQ(received[i].id(), static_cast<int>(i)) << "out of order, repeated or skipped";
            // Pictures are compared for every 20th buffer: converting back is the test's dearest part.
            if (i % 20 == 0 || !frameExact) expectFrame(received[i], reference, format, "exact", frameExact);
            else if (frameExact) EXPECT_TRUE(ownResults(received[i], "exact")) << "frame " << i;
        }
        if (!frameExact) {
            std::printf("[ compatible ] %zu buffers, %ld of %d frames with all their own results\n", received.size(),
                        static_cast<long>(std::count_if(received.begin(), received.end(),
                                                        [](const Received &r) { return ownResults(r, "exact"); })),
                        kFrames);
        }
    }
    EXPECT_EQ(sources[0].second->stat("frames-delivered"), static_cast<std::uint64_t>(kFrames));
    EXPECT_EQ(sources[0].second->stat("results-matched"), 3u * kFrames) << "stats do not count the results paired";
    EXPECT_TRUE(otherContext.waitingForFirstFrame()) << "a frame of another context reached the source";
}

// Combined records at an odd picture size, both ways: the publisher converts
// NV12 321x241, the sources write odd I420, NV12 and BGR frames; every buffer
// carries its results. A source without a frame rate delivers one buffer and
// ends the stream.
TEST(SrcDelivery, CombinedRecordsAtAnOddSize) {
    constexpr int kFrames = 40;
    qxtest::ConfigRoot root;
    root.enter();
    PublisherRun run{"NV12", kFrames, "odd", "uni"};
    run.width = 321;
    run.height = 241;
    const auto reference = referenceFrames(run.source());
    std::vector<std::pair<std::string, std::unique_ptr<Subscriber>>> sources;
    for (const char *format : {"I420", "NV12", "BGR"})
        sources.emplace_back(format, std::make_unique<Subscriber>("taggroups=uni", caps(format, 321, 241)));
    Subscriber single("taggroups=uni", caps("BGR", 321, 241, "0/1"));
    for (auto &[format, source] : sources)
        source->start();
    single.start();
    auto publisher = startPublisher(root, run);
    std::vector<std::future<std::vector<Received>>> runs;
    for (auto &[format, source] : sources)
        runs.push_back(std::async(std::launch::async, [&, s = source.get()] { return collect(*s, *publisher, kFrames - 1); }));
    EXPECT_EQ(publisher->wait(60s), 0) << publisher->err();
    for (std::size_t k = 0; k < sources.size(); ++k) {
        const auto received = runs[k].get();
        ASSERT_FALSE(received.empty()) << sources[k].first;
        EXPECT_EQ(received.back().id(), kFrames - 1);
        // Odd sizes go through one more rounding on the way (the last column and row).
        for (const Received &r : received)
            expectFrame(r, reference, sources[k].first, "odd", true, kPictureTolerance + 1.5);
    }
    Received first, more;
    ASSERT_TRUE(single.pull(first, 10s));
    EXPECT_EQ(first.frames.size(), 1u);
    EXPECT_FALSE(single.pull(more, 2s)) << "a second buffer without a frame rate";
}

// Encoded pictures leave the source as the publisher's encoder made them:
// each buffer holds exactly the bytes of the encoded frame its metadata
// names (equal sizes too: anything after the picture would be read as part
// of it). Two publishers at once, kept apart by their context ids.
TEST(SrcDelivery, EncodedPicturesPassThroughByteForByte) {
    constexpr int kFrames = 20;
    qxtest::ConfigRoot root;
    root.enter();
    struct Encoded {
        PublisherRun run;
        const char *caps;
    };
    std::vector<Encoded> encoded = {
        {{"I420", kFrames, "jpeg", srcexpect::kAllGroupsWithVideo, "jpeg", "jpegenc"}, "image/jpeg"},
        {{"RGB", kFrames, "png", srcexpect::kAllGroupsWithVideo, "png", "pngenc"}, "image/png,framerate=30/1"}};
    std::vector<std::unique_ptr<Subscriber>> sources;
    std::vector<std::unique_ptr<qxtest::ChildProcess>> publishers;
    for (const Encoded &e : encoded) {
        sources.push_back(std::make_unique<Subscriber>("context-id=" + e.run.contextId, e.caps));
        sources.back()->start();
    }
    for (const Encoded &e : encoded)
        publishers.push_back(startPublisher(root, e.run));
    for (std::size_t k = 0; k < encoded.size(); ++k) {
        SCOPED_TRACE(encoded[k].run.stream);
        const auto reference = referenceEncoded(encoded[k].run.source());
        const auto received = collect(*sources[k], *publishers[k], kFrames - 1);
        EXPECT_EQ(publishers[k]->wait(60s), 0) << publishers[k]->err();
        ASSERT_FALSE(received.empty());
        for (const Received &r : received) {
            ASSERT_TRUE(r.id() >= 0 && r.id() < kFrames);
            EXPECT_TRUE(r.frames.front().is_compress);
            EXPECT_TRUE(r.encoded == reference[r.id()]) << "frame " << r.id() << " differs from the published picture";
        }
    }
}

} // namespace
