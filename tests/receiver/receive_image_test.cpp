// ReceiveImage, where the reader threads hand records over. Guards against a
// picture decoded in the wrong channel order or size, an unusable or short frame
// queued (or costing the frames before it), results put in the wrong queue, and
// combined records that are lost, over-kept or paired by a worker that should
// have stopped.

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include <opencv2/imgcodecs.hpp>

#include "receiver_test_support.h"

namespace {

using namespace receivertest;

template <typename Change> TOLVIXO::FrameInfo frameWith(Change change) {
    auto f = makeFrame(1, 2, 1);
    change(f);
    return f;
}

TEST(ReceiveImage, FramesDecodeAsReceivedAndResultsGoToTheirQueues) {
    // A JPEG of 8x4 whose record claims 2x1: the picture's own size wins.
    std::vector<unsigned char> jpeg;
    cv::imencode(".jpg", cv::Mat(4, 8, CV_8UC3, cv::Scalar(0, 0, 255)), jpeg);
    const struct {
        const char *name;
        TOLVIXO::FrameInfo frame;
        bool queued;
        int width, height;
        cv::Vec3b firstPixel; // of the receiver's picture, which holds R,G,B
    } cases[] = {
        {"no bytes", frameWith([](auto &f) { f.data.clear(); }), false, 0, 0, {}},
        {"zero width", frameWith([](auto &f) { f.width = 0; }), false, 0, 0, {}},
        {"zero height", frameWith([](auto &f) { f.height = 0; }), false, 0, 0, {}},
        {"bgr bytes", makeFrame(1, 2, 1), true, 2, 1, {3, 2, 1}},
        {"rgb bytes", makeFrame(1, 2, 1, "com.vision.models.PIXEL_FORMAT_RGB8"), true, 2, 1, {1, 2, 3}},
        {"jpeg",
         frameWith([&](auto &f) {
             f.data = jpeg;
             f.compression = "com.vision.models.COMPRESSION_KIND_JPG";
         }),
         true,
         8,
         4,
         {255, 0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ReceiveImage receiver;
        receiver.callback(c.frame);
        std::lock_guard<std::mutex> lock(m);
        const auto &queue = receiver.synchronizer.syncPool.frameInfoVec;
        ASSERT_EQ(queue.size(), c.queued ? 1u : 0u);
        EXPECT_EQ(std::make_pair(receiver.width, receiver.height), std::make_pair(c.width, c.height));
        if (!c.queued) continue;
        EXPECT_EQ(queue.front().data, c.frame.data); // the record as received, not the picture
        const cv::Vec3b pixel = receiver.image.at<cv::Vec3b>(0, 0);
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(pixel[ch], c.firstPixel[ch], 3) << "channel " << ch;
    }

    // A payload shorter than its size claims loses that frame only.
    ReceiveImage receiver;
    receiver.callback(makeFrame(1, 2, 1));
    EXPECT_THROW(receiver.callback(frameWith([](auto &f) { f.width = 4, f.height = 4; })), std::out_of_range);
    receiver.callback(makeDevice("cam"));
    receiver.callback(makeClassification(4));
    receiver.callback(makeDetection(5));
    receiver.callback(makeDetection(6));
    receiver.callback(makeSegment(7));
    std::lock_guard<std::mutex> lock(m);
    const poolingData &pool = receiver.synchronizer.syncPool;
    EXPECT_EQ(ids(pool.frameInfoVec), std::vector<std::uint32_t>{1});
    EXPECT_EQ(std::make_pair(receiver.width, receiver.image.cols), std::make_pair(2, 2));
    ASSERT_EQ(pool.deviceInfoVec.size(), 1u);
    EXPECT_EQ(pool.deviceInfoVec[0].dev_id, "cam");
    EXPECT_EQ(ids(pool.classificationVec), std::vector<std::uint32_t>{4});
    EXPECT_EQ(ids(pool.detectionBoxVec), (std::vector<std::uint32_t>{5, 6}));
    EXPECT_EQ(ids(pool.segmentInfoVec), std::vector<std::uint32_t>{7});
}

TOLVIXO::IXO_VideoFrameData uniFrame(std::uint32_t frameId, bool withBytes = true) {
    const TOLVIXO::FrameInfo f = makeFrame(frameId, 2, 1);
    return {"uni",    frameId,       1,    withBytes ? f.data : std::vector<unsigned char>{},
            f.width,  f.height,      3,    f.size,
            f.format, f.compression, 25.0f};
}

// A combined record with a usable first frame becomes one output entry at
// once; the output keeps ten before it appends (the drop is reported only with
// the message flag); the first combined record stops the separate groups' worker.
TEST(ReceiveImage, CombinedRecords) {
    const struct {
        const char *name;
        TOLVIXO::UniInfo record;
        std::size_t entries;
    } cases[] = {{"no frame", {}, 0},
                 {"first frame without bytes", {{uniFrame(1, false), uniFrame(2)}}, 0},
                 {"usable frame", {{uniFrame(3)}}, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ReceiveImage receiver;
        receiver.callback(c.record);
        EXPECT_TRUE(receiver.uniMode);
        std::lock_guard<std::mutex> lock(m);
        ASSERT_EQ(receiver.synchronizer.syncPool.synchronizedVec.size(), c.entries);
        if (c.entries == 1) EXPECT_EQ(receiver.image.at<cv::Vec3b>(0, 0), cv::Vec3b(3, 2, 1));
    }

    {
        ReceiveImage receiver;
        MessageCapture capture;
        receiver.synchronizer.SetWorkerMessageFlag(true);
        receiver.synchronizer.Start();
        for (std::uint32_t id = 100; id < 112; ++id) {
            std::lock_guard<std::mutex> lock(m);
            receiver.synchronizer.syncPool.synchronizedVec.emplace_back().frameInfo.frame_id = id;
        }
        testing::internal::CaptureStdout();
        receiver.callback(TOLVIXO::UniInfo{{uniFrame(7)}});
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "[Drop Data] Dropped 2 synchronizedData in ReceiveImage::callback(const UniInfo &uniInfo).\n");
        ASSERT_TRUE(eventually([&] { return capture.contains("break sync while."); }));
        receiver.callback(makeFrame(2)); // queued, but nobody pairs separate frames any more
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        std::lock_guard<std::mutex> lock(m);
        const auto &out = receiver.synchronizer.syncPool.synchronizedVec;
        ASSERT_EQ(out.size(), 11u);
        EXPECT_EQ(out.front().frameInfo.frame_id, 102u);
        EXPECT_EQ(out.back().frameInfo.frame_id, 7u);
        EXPECT_EQ(receiver.synchronizer.syncPool.frameInfoVec.size(), 1u);
    }
}

} // namespace
