// The worker thread itself: started, it drains the queues; stopped, it ends.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "receiver_test_support.h"

namespace {

using namespace receivertest;

// Polls cond until it holds; the deadline only keeps a broken build from hanging.
bool eventually(const std::function<bool()> &cond) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return cond();
}

TEST(SyncWorker, NotRunningReturnsAtOnce) {
    Synchronizer sync;
    MessageCapture capture;
    sync.pushFrameInfo(makeFrame(1));
    sync.sync_work();
    EXPECT_TRUE(capture.contains("break sync while."));
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(sync.syncPool.frameInfoVec.size(), 1u);
    EXPECT_TRUE(sync.syncPool.synchronizedVec.empty());
}

TEST(SyncWorker, StartedWorkerPairsAndStopEndsIt) {
    Synchronizer sync;
    MessageCapture capture;
    sync.pushClassification(makeClassification(8));
    sync.pushDetectionBox(makeDetection(8));
    sync.Start();
    sync.pushFrameInfo(makeFrame(8));

    const bool drained = eventually([&] {
        std::lock_guard<std::mutex> lock(m);
        return sync.syncPool.frameInfoVec.empty() && !sync.syncPool.synchronizedVec.empty();
    });
    ASSERT_TRUE(drained);
    {
        std::lock_guard<std::mutex> lock(m);
        ASSERT_EQ(sync.syncPool.synchronizedVec.size(), 1u);
        const SynchronizedData &entry = sync.syncPool.synchronizedVec.front();
        EXPECT_EQ(entry.frameInfo.frame_id, 8u);
        EXPECT_EQ(entry.frameInfo.data, makeFrame(8).data);
        EXPECT_EQ(entry.classification.frame_id, 8u);
        EXPECT_EQ(entry.classification.engine_id, "classifier");
        EXPECT_EQ(entry.detectionBox.data.size(), 1u);
        EXPECT_TRUE(sync.syncPool.classificationVec.empty());
    }

    sync.Stop();
    EXPECT_TRUE(eventually([&] { return capture.contains("break sync while."); }));
    // A frame queued after the worker ended stays where it is.
    sync.pushFrameInfo(makeFrame(9));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(sync.syncPool.frameInfoVec.size(), 1u);
}

TEST(SyncWorker, DestroyedWhileRunningLeavesWorkerHarmless) {
    // The detached worker outlives its synchroniser; a second one built at the
    // same time must keep working unaffected.
    auto first = std::make_unique<Synchronizer>();
    first->Start();
    first->pushFrameInfo(makeFrame(1));
    first.reset();

    Synchronizer second;
    second.Start();
    second.pushFrameInfo(makeFrame(2));
    EXPECT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(m);
        return second.syncPool.synchronizedVec.size() == 1;
    }));
    second.Stop();
}

} // namespace
