// Reader threads, the worker and a consumer all at once, as in a running source
// element, for the synchroniser and for the pairing engine. Built with
// ThreadSanitizer: any unguarded access to shared state fails the run.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include "pairing.h"
#include "receiver_test_support.h"

namespace {

using namespace receivertest;

constexpr std::uint32_t kFrames = 150;

// A reader thread's loop: push hands over what arrived for each frame id in turn.
template <typename Push> auto eachFrame(Push push) {
    return [push] {
        for (std::uint32_t id = 1; id <= kFrames; ++id)
            push(id);
    };
}

TEST(ReceiverConcurrency, ReadersWorkerAndConsumerShareTheQueues) {
    MessageCapture capture;
    ReceiveImage receiver;
    receiver.synchronizer.Start();

    std::atomic<bool> producing{true};
    std::vector<SynchronizedData> consumed;
    std::thread consumer([&] {
        // Drains like the source element: copy the front, then remove it, under m.
        for (;;) {
            const bool last = !producing;
            bool took = false;
            {
                std::lock_guard<std::mutex> lock(m);
                auto &out = receiver.synchronizer.syncPool.synchronizedVec;
                if (!out.empty()) {
                    consumed.push_back(out.front());
                    out.erase(out.begin());
                    took = true;
                }
                // The source element reads the picture size while frames arrive.
                if (receiver.image.cols != receiver.width) ADD_FAILURE() << "picture and width disagree";
            }
            if (!took && last) return;
            if (!took) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });

    // One reader thread per tag group, as the bus session runs them.
    std::vector<std::thread> readers;
    readers.emplace_back(eachFrame([&](std::uint32_t id) { receiver.callback(makeFrame(id, 4, 2)); }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) { receiver.callback(makeClassification(id)); }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) {
        if (id % 2) receiver.callback(makeDetection(id));
    }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) {
        if (id % 3 == 1) receiver.callback(makeSegment(id));
    }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) {
        if (id % 8 == 0) receiver.callback(makeDevice("cam"));
    }));
    for (auto &r : readers)
        r.join();

    const bool drained = eventually([&] {
        std::lock_guard<std::mutex> lock(m);
        return receiver.synchronizer.syncPool.frameInfoVec.empty();
    });
    producing = false;
    consumer.join();
    receiver.synchronizer.Stop();
    ASSERT_TRUE(drained);
    // The worker is detached; its last line must not reach the next test's capture.
    EXPECT_TRUE(eventually([&] { return capture.contains("break sync while."); }));

    ASSERT_FALSE(consumed.empty());
    // Entries need not leave in frame order: a pass skips ahead and the next
    // one returns to the frames it left behind.
    for (const SynchronizedData &e : consumed) {
        const std::uint32_t id = e.frameInfo.frame_id;
        SCOPED_TRACE("frame " + std::to_string(id));
        ASSERT_TRUE(id >= 1 && id <= kFrames);
        EXPECT_EQ(e.frameInfo.data, makeFrame(id, 4, 2).data);
        // Whatever was paired belongs to this frame.
        for (std::uint32_t resultId : {e.classification.frame_id, e.detectionBox.frame_id, e.segmentInfo.frame_id})
            EXPECT_TRUE(resultId == 0 || resultId == id) << "result for frame " << resultId;
    }
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(receiver.width, 4);
    EXPECT_EQ(receiver.height, 2);
}

TEST(ReceiverConcurrency, WorkerOutlivingItsSynchronizerEndsWithoutTouchingIt) {
    // The worker is detached, so it may not even have started, or still be
    // asleep, when its synchroniser goes. Any read of the freed object on its
    // way out is reported here.
    for (bool waitForFirstPass : {false, true}) {
        SCOPED_TRACE(waitForFirstPass ? "destroyed after a pass" : "destroyed at once");
        MessageCapture capture;
        auto sync = std::make_unique<Synchronizer>();
        sync->pushFrameInfo(makeFrame(1));
        sync->Start();
        if (waitForFirstPass) {
            ASSERT_TRUE(eventually([&] {
                std::lock_guard<std::mutex> lock(m);
                return sync->syncPool.synchronizedVec.size() == 1;
            }));
        }
        sync.reset();
        EXPECT_TRUE(eventually([&] { return capture.contains("break sync while."); }));
    }
}

// With room for every frame none may be dropped: frames come out in order per
// publisher (checked as they come) and popped equals pushed, so each comes out once.
TEST(PairingConcurrency, SixReadersOneConsumerAndAStopLoseNoFrame) {
    PairingSettings settings;
    settings.needClassification = settings.needDetection = settings.needSegmentation = true;
    settings.resultWait = std::chrono::milliseconds(20);
    settings.maxFramesPerPublisher = settings.outputLimit = 2 * kFrames;
    PairingEngine engine(settings);
    const PublisherKey cam{"writer-1", "flow"};
    const PublisherKey other{"writer-2", "flow"}; // frames only: each is released when its wait ends

    std::map<std::string, std::uint32_t> lastId;
    std::uint64_t popped = 0;
    std::thread consumer([&] {
        SynchronizedData e;
        // Without a wake-up from stop() this wait would outlast the test's time limit.
        while (engine.pop(e, std::chrono::hours(1))) {
            ++popped;
            const std::uint32_t id = e.frameInfo.frame_id;
            EXPECT_GT(id, lastId[e.frameInfo.stream_id]) << e.frameInfo.stream_id << " out of order";
            lastId[e.frameInfo.stream_id] = id;
            for (std::uint32_t resultId : {e.classification.frame_id, e.detectionBox.frame_id, e.segmentInfo.frame_id})
                EXPECT_TRUE(resultId == 0 || resultId == id) << "result for frame " << resultId << " on " << id;
        }
    });

    std::vector<std::thread> readers;
    readers.emplace_back(eachFrame([&](std::uint32_t id) { engine.push(cam, makeFrame(id, 4, 2)); }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) { engine.push(cam, makeClassification(id)); }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) { engine.push(cam, makeDetection(id)); }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) { engine.push(cam, makeSegment(id)); }));
    readers.emplace_back(
        eachFrame([&](std::uint32_t id) { engine.push(cam, makeDevice("cam-" + std::to_string(id))); }));
    readers.emplace_back(eachFrame([&](std::uint32_t id) {
        auto frame = makeFrame(id);
        frame.stream_id = "other";
        engine.push(other, std::move(frame));
    }));
    for (auto &r : readers)
        r.join();
    EXPECT_TRUE(eventually([&] { return engine.counters().framesWaiting == 0; }));
    engine.stop();
    consumer.join();

    const PairingCounters n = engine.counters();
    EXPECT_EQ(n.framesReceived, 2 * kFrames);
    EXPECT_EQ(n.framesDelivered, popped);
    EXPECT_EQ(n.framesDelivered, n.framesReceived) << n.framesDropped << " dropped";
    EXPECT_EQ(lastId["cam-0"], kFrames);
    EXPECT_EQ(lastId["other"], kFrames);
    EXPECT_EQ(n.restarts, 0u);
}

} // namespace
