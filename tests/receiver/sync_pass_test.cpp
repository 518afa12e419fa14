// The synchroniser's pairing walk, kept as it is on purpose, driven one pass at a
// time under m so that every step is deterministic. Guards against any change to
// which frames go out (skipped, repeated, held back), which results and device
// they carry, what stays queued, the restart rule and its line, the output
// bound and its message.

#include <gtest/gtest.h>

#include <ostream>
#include <tuple>

#include "receiver_test_support.h"

namespace {

using namespace receivertest;

// One published entry: the frame id, the device, and the frame ids of the three results.
using Published = std::tuple<std::uint32_t, std::string, std::uint32_t, std::uint32_t, std::uint32_t>;

// Records that arrive before one pass of the worker.
struct Arrival {
    std::vector<std::uint32_t> frames;
    std::vector<std::uint32_t> classifications;
    std::vector<std::uint32_t> detections;
    std::vector<std::uint32_t> segments;
    std::vector<std::string> devices;
};

struct PassCase {
    const char *name;
    std::vector<Arrival> passes; // one pass after each arrival
    // State after the last pass: what went out and what is still queued.
    std::vector<Published> published;
    Arrival left;
    bool restartAnnounced;
};

std::ostream &operator<<(std::ostream &os, const PassCase &c) { return os << c.name; }

std::vector<Published> published(const poolingData &pool) {
    std::vector<Published> out;
    for (const auto &e : pool.synchronizedVec) {
        out.emplace_back(e.frameInfo.frame_id, e.deviceInfo.dev_id, e.classification.frame_id, e.detectionBox.frame_id,
                         e.segmentInfo.frame_id);
    }
    return out;
}

std::vector<Arrival> oneFramePerPass(std::uint32_t first, std::uint32_t last) {
    std::vector<Arrival> out;
    for (std::uint32_t id = first; id <= last; ++id)
        out.push_back({{id}, {}, {}, {}, {}});
    return out;
}

// Frames first..last published with nothing paired.
std::vector<Published> bare(std::uint32_t first, std::uint32_t last) {
    std::vector<Published> out;
    for (std::uint32_t id = first; id <= last; ++id)
        out.emplace_back(id, "", 0, 0, 0);
    return out;
}

std::vector<Published> operator+(std::vector<Published> a, const std::vector<Published> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class SyncPassTest : public ::testing::TestWithParam<PassCase> {};

TEST_P(SyncPassTest, PairsFramesWithResults) {
    const PassCase &c = GetParam();
    Synchronizer sync;
    SyncCursor cursor;
    testing::internal::CaptureStdout();
    for (const Arrival &a : c.passes) {
        for (auto id : a.frames)
            sync.pushFrameInfo(makeFrame(id));
        for (auto id : a.classifications)
            sync.pushClassification(makeClassification(id));
        for (auto id : a.detections)
            sync.pushDetectionBox(makeDetection(id));
        for (auto id : a.segments)
            sync.pushSegmentInfo(makeSegment(id));
        for (const auto &dev : a.devices)
            sync.pushDeviceInfo(makeDevice(dev));
        std::lock_guard<std::mutex> lock(m);
        sync.syncPass(cursor);
    }
    const std::string out = testing::internal::GetCapturedStdout();

    std::lock_guard<std::mutex> lock(m);
    const poolingData &pool = sync.syncPool;
    EXPECT_EQ(published(pool), c.published);
    EXPECT_EQ(ids(pool.frameInfoVec), c.left.frames);
    EXPECT_EQ(ids(pool.classificationVec), c.left.classifications);
    EXPECT_EQ(ids(pool.detectionBoxVec), c.left.detections);
    EXPECT_EQ(ids(pool.segmentInfoVec), c.left.segments);
    std::vector<std::string> devicesLeft;
    for (const auto &d : pool.deviceInfoVec)
        devicesLeft.push_back(d.dev_id);
    EXPECT_EQ(devicesLeft, c.left.devices);
    // Without the message flag the restart line is the only output.
    EXPECT_EQ(out, c.restartAnnounced ? "clear all queued data from marlet\n" : "");
}

std::vector<Arrival> tenBareThenMore() {
    auto passes = oneFramePerPass(1, 10);
    passes.push_back({});
    return passes;
}

std::vector<Arrival> tenWithMatchAtFive() {
    auto passes = oneFramePerPass(1, 10);
    passes[4].classifications = {5};
    return passes;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(WalkingOrder, SyncPassTest, ::testing::Values(
    // Index i is read while the front goes: frame 1, then frame 3, frame 2 removed unread.
    PassCase{"three_frames_first_pass", {{{1, 2, 3}}}, {{1, "", 0, 0, 0}, {3, "", 0, 0, 0}}, {{3}}, false},
    PassCase{"three_frames_second_pass_publishes_the_third_again", {{{1, 2, 3}}, {}}, {{1, "", 0, 0, 0}, {3, "", 0, 0, 0}, {3, "", 0, 0, 0}}, {}, false},
    // 5 is passed over (front removed), index 1 of [6, 7] is 7: copied, but 6 is what goes.
    PassCase{"classification_walk_removes_front_on_match", {{{7}, {5, 6, 7}}}, {{7, "", 7, 0, 0}}, {{}, {7}}, false},
    // After 2 is removed the walk is at index 1 of a one-element queue: 4 is not reached.
    PassCase{"result_behind_an_older_one_is_missed", {{{4}, {2, 4}}}, {{4, "", 0, 0, 0}}, {{}, {4}}, false},
    PassCase{"later_result_stays_queued", {{{4}, {9}, {4}}}, {{4, "", 0, 4, 0}}, {{}, {9}}, false},
    PassCase{"all_three_kinds_matched", {{{3}, {3}, {3, 4}, {3}}}, {{3, "", 3, 3, 3}}, {{}, {}, {4}}, false},
    PassCase{"nine_bare_frames_published_tenth_held_back", oneFramePerPass(1, 10), bare(1, 9), {{10}}, false},
    // The held-back frame goes out on the next pass: the count restarted.
    PassCase{"held_back_frame_published_next_pass", tenBareThenMore(), bare(1, 10), {}, false},
    // A match restarts the unmatched count, so no frame of the ten is held back.
    PassCase{"match_restarts_the_unmatched_count", tenWithMatchAtFive(), bare(1, 4) + std::vector<Published>{{5, "", 5, 0, 0}} + bare(6, 10), {}, false},
    PassCase{"restart_clears_results_and_devices_but_not_segments", {{{5}}, {{2}, {7}, {8}, {9}, {"cam"}}}, {{5, "", 0, 0, 0}}, {{2}, {}, {}, {9}}, true},
    PassCase{"restarted_frame_published_next_pass", {{{5}}, {{2}, {7}, {8}, {2, 9}, {"cam"}}, {}}, {{5, "", 0, 0, 0}, {2, "", 0, 0, 2}}, {{}, {}, {}, {9}}, true},
    PassCase{"device_used_by_next_frame_others_discarded", {{{1}}, {{2}, {}, {}, {}, {"a", "b"}}, {{3}}}, {{1, "", 0, 0, 0}, {2, "a", 0, 0, 0}, {3, "", 0, 0, 0}}, {}, false},
    PassCase{"device_taken_by_first_frame_of_a_pass", {{{1, 2, 3}, {}, {}, {}, {"a"}}}, {{1, "a", 0, 0, 0}, {3, "", 0, 0, 0}}, {{3}}, false}),
    [](const ::testing::TestParamInfo<PassCase> &info) { return std::string(info.param.name); });
// clang-format on

// The output keeps ten: the pass drops the oldest entry of eleven before it
// appends; with the message flag it says so, and which frame it published.
TEST(SyncPassOutput, DropsTheOldestBeforeAppendingAndSaysSoWithTheMessageFlag) {
    for (bool flag : {false, true}) {
        Synchronizer sync;
        sync.SetWorkerMessageFlag(flag);
        SyncCursor cursor;
        sync.pushFrameInfo(makeFrame(3));
        sync.pushClassification(makeClassification(3, 2));
        sync.pushDetectionBox(makeDetection(3));
        sync.pushSegmentInfo(makeSegment(3));
        sync.pushDeviceInfo(makeDevice("cam"));
        std::lock_guard<std::mutex> lock(m);
        for (std::uint32_t id = 100; id < 111; ++id)
            sync.syncPool.synchronizedVec.emplace_back().frameInfo.frame_id = id;
        testing::internal::CaptureStdout();
        sync.syncPass(cursor);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  flag ? "[Drop Data] Dropped 1 synchronizedData.\n(frame id, device id, classification id, "
                         "detectionbox id, segment id)= (3, cam, 3, 3, 3)\n"
                       : "");
        const auto &queue = sync.syncPool.synchronizedVec;
        ASSERT_EQ(queue.size(), 11u);
        EXPECT_EQ(queue.front().frameInfo.frame_id, 101u);
        EXPECT_EQ(queue.back().frameInfo.frame_id, 3u);
    }
}

} // namespace
