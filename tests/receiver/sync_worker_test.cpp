// The worker thread itself: started, it drains the queues; stopped, it ends.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "receiver_test_support.h"

namespace {

using namespace receivertest;

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

} // namespace
