// ReceiveImage: what the reader threads hand over, and the combined record.

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

#include <opencv2/imgcodecs.hpp>

#include "receiver_test_support.h"

namespace {

using namespace receivertest;

struct FrameCase {
    const char *name;
    TOLVIXO::FrameInfo frame;
    bool queued;
    int width;
    int height;
    cv::Vec3b firstPixel; // of the receiver's picture
};

// Frame 1 of 2x2 pixels with one change.
template <typename Change> TOLVIXO::FrameInfo frameWith(Change change) {
    auto f = makeFrame(1);
    change(f);
    return f;
}

// A JPEG of 8x4 whose record claims 2x2: the picture's own size wins.
TOLVIXO::FrameInfo jpegFrame() {
    cv::Mat picture(4, 8, CV_8UC3, cv::Scalar(0, 0, 255)); // pure red in B,G,R
    std::vector<unsigned char> bytes;
    cv::imencode(".jpg", picture, bytes);
    auto f = makeFrame(1);
    f.data = bytes;
    f.size = static_cast<std::uint32_t>(bytes.size());
    f.compression = "com.vision.models.COMPRESSION_KIND_JPG";
    return f;
}

TEST(ReceiveImageFrame, DecodesPictureAndQueuesRecordAsReceived) {
    const FrameCase cases[] = {
        {"no bytes", frameWith([](auto &f) { f.data.clear(); }), false, 0, 0, {}},
        {"zero width", frameWith([](auto &f) { f.width = 0; }), false, 0, 0, {}},
        {"zero height", frameWith([](auto &f) { f.height = 0; }), false, 0, 0, {}},
        // Bytes 1,2,3 are B,G,R: the picture holds them as R,G,B.
        {"bgr turned to rgb", makeFrame(1, 2, 1), true, 2, 1, {3, 2, 1}},
        {"rgb kept", makeFrame(1, 2, 1, "com.vision.models.PIXEL_FORMAT_RGB8"), true, 2, 1, {1, 2, 3}},
        {"jpeg size from the picture", jpegFrame(), true, 8, 4, {255, 0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ReceiveImage receiver;
        receiver.callback(c.frame);
        std::lock_guard<std::mutex> lock(m);
        const auto &queue = receiver.synchronizer.syncPool.frameInfoVec;
        ASSERT_EQ(queue.size(), c.queued ? 1u : 0u);
        EXPECT_EQ(receiver.width, c.width);
        EXPECT_EQ(receiver.height, c.height);
        if (!c.queued) {
            EXPECT_TRUE(receiver.image.empty());
            continue;
        }
        EXPECT_EQ(queue.front().data, c.frame.data); // the record, not the converted picture
        EXPECT_EQ(queue.front().format, c.frame.format);
        ASSERT_EQ(receiver.image.type(), CV_8UC3);
        const cv::Vec3b pixel = receiver.image.at<cv::Vec3b>(0, 0);
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(pixel[ch], c.firstPixel[ch], 3) << "channel " << ch;
    }
}

TEST(ReceiveImageFrame, ShortPayloadLosesOnlyThatFrame) {
    ReceiveImage receiver;
    receiver.callback(makeFrame(1, 2, 1));
    auto broken = makeFrame(2, 4, 4);
    broken.data.resize(10);
    EXPECT_THROW(receiver.callback(broken), std::out_of_range);
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(receiver.synchronizer.syncPool.frameInfoVec.size(), 1u);
    EXPECT_EQ(receiver.width, 2);
    EXPECT_EQ(receiver.height, 1);
    EXPECT_EQ(receiver.image.cols, 2);
}

TEST(ReceiveImageResults, EachKindGoesToItsQueue) {
    ReceiveImage receiver;
    receiver.callback(makeDevice("cam"));
    receiver.callback(makeClassification(4));
    receiver.callback(makeDetection(5));
    receiver.callback(makeDetection(6));
    receiver.callback(makeSegment(7));
    std::lock_guard<std::mutex> lock(m);
    const poolingData &pool = receiver.synchronizer.syncPool;
    ASSERT_EQ(pool.deviceInfoVec.size(), 1u);
    EXPECT_EQ(pool.deviceInfoVec[0].dev_id, "cam");
    EXPECT_EQ(ids(pool.classificationVec), std::vector<std::uint32_t>{4});
    EXPECT_EQ(ids(pool.detectionBoxVec), (std::vector<std::uint32_t>{5, 6}));
    EXPECT_EQ(ids(pool.segmentInfoVec), std::vector<std::uint32_t>{7});
    EXPECT_TRUE(pool.frameInfoVec.empty());
}

TOLVIXO::IXO_VideoFrameData uniFrame(std::uint32_t frameId) {
    const TOLVIXO::FrameInfo f = makeFrame(frameId, 2, 1);
    return {"uni-stream", frameId,  20240102030405006, f.data, f.width, f.height, 3,
            f.size,       f.format, f.compression,     25.0f};
}

TEST(ReceiveImageParser, CopiesFirstFrameAndFirstDeviceFieldByField) {
    TOLVIXO::UniInfo uni;
    uni.videoList.push_back(uniFrame(42));
    uni.videoList.push_back(uniFrame(43));
    auto &v = uni.videoList[0];
    v.classificationResult.push_back({"engine-a", 4294967295u, "out-a", "cat", 0.75f});
    v.classificationResult.push_back({"engine-b", 3, "out-b", "dog", 0.25f});
    TOLVIXO::IXO_DetectionBoxData box{"det", 11, 4000000000u, "obj", "person", 1.5f, 2.5f, 3.5f, 4.5f, 0.9f, "extra"};
    v.detectionResult = {box, box};
    v.detectionResult[1].obj_id = 12;
    const TOLVIXO::IXO_SegmentationData seg{7, 2, 16, 8, 128, 1, 0xff00ff, "road", 0.6f, {9, 8, 7}};
    v.segmentationResult = {seg};
    const TOLVIXO::IXO_DeviceInfoData dev{
        "s", "mac", "ip", 554, "rtsp://127.0.0.1/x", "maker", "model", "serial", "fw", "dev-1", "on", "cam", "rtsp"};
    uni.deviceList = {dev, TOLVIXO::IXO_DeviceInfoData{}};

    const SynchronizedData e = ReceiveImage::parser(uni);

    // The combined record writes the frame, mask and device fields under the
    // same names and kinds as the separate records, so equal pairs mean every
    // field was copied to its own member.
    const auto frameFields = v.Encode();
    EXPECT_EQ(e.frameInfo.Encode(),
              std::vector<com::quorixtech::iot::IOT_NVP>(frameFields.begin(), frameFields.begin() + 11));
    ASSERT_EQ(e.segmentInfo.data.size(), 1u);
    EXPECT_EQ(e.segmentInfo.data[0].Encode(), seg.Encode());
    EXPECT_EQ(e.deviceInfo.Encode(), dev.Encode());

    // Class and box ids change kind on the way: checked value by value.
    const auto &c = e.classification;
    EXPECT_EQ(std::tie(c.frame_id, c.engine_id, c.stream_id), std::make_tuple(42u, "engine-a", "uni-stream"));
    ASSERT_EQ(c.data.size(), 2u);
    EXPECT_EQ(std::tie(c.data[0].index, c.data[0].output, c.data[0].label, c.data[0].probability),
              std::make_tuple(-1, "out-a", "cat", 0.75f));
    EXPECT_EQ(std::tie(c.data[1].index, c.data[1].label), std::make_tuple(3, "dog"));

    ASSERT_EQ(e.detectionBox.data.size(), 2u);
    const TOLVIXO::DetectionBoxData &d = e.detectionBox.data[0];
    EXPECT_EQ(d.obj_id, 11);
    EXPECT_EQ(d.class_id, static_cast<std::int32_t>(4000000000u));
    EXPECT_EQ(std::tie(d.obj_label, d.class_label, d.meta), std::make_tuple("obj", "person", "extra"));
    EXPECT_EQ(std::make_tuple(d.x1, d.y1, d.x2, d.y2, d.probability), std::make_tuple(1.5f, 2.5f, 3.5f, 4.5f, 0.9f));
    EXPECT_EQ(e.detectionBox.data[1].obj_id, 12);
}

TEST(ReceiveImageParser, SparseRecords) {
    const SynchronizedData empty = ReceiveImage::parser(TOLVIXO::UniInfo{});
    EXPECT_EQ(empty.frameInfo.frame_id, 0u);
    EXPECT_TRUE(empty.frameInfo.data.empty());
    EXPECT_EQ(empty.classification.frame_id, 0u);

    // No class results: the id still names the frame, the header strings stay empty.
    TOLVIXO::UniInfo bare;
    bare.videoList.push_back(uniFrame(5));
    const SynchronizedData e = ReceiveImage::parser(bare);
    EXPECT_EQ(e.classification.frame_id, 5u);
    EXPECT_EQ(e.classification.engine_id, "");
    EXPECT_EQ(e.classification.stream_id, "");
    EXPECT_TRUE(e.classification.data.empty());
    EXPECT_TRUE(e.detectionBox.data.empty());
    EXPECT_TRUE(e.segmentInfo.data.empty());
    EXPECT_EQ(e.deviceInfo.dev_id, "");
}

struct UniCase {
    const char *name;
    TOLVIXO::UniInfo record;
    std::size_t entries;
    int width;
};

TOLVIXO::IXO_VideoFrameData uniFrameWithoutBytes() {
    auto v = uniFrame(1);
    v.data.clear();
    return v;
}

TEST(ReceiveImageCombined, UsableFirstFrameBecomesOneEntry) {
    const UniCase cases[] = {
        {"no frame", TOLVIXO::UniInfo{}, 0, 0},
        {"first frame without bytes", TOLVIXO::UniInfo{{uniFrameWithoutBytes(), uniFrame(2)}}, 0, 0},
        {"usable frame", TOLVIXO::UniInfo{{uniFrame(3)}}, 1, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ReceiveImage receiver;
        receiver.callback(c.record);
        EXPECT_TRUE(receiver.uniMode); // any combined record switches the mode
        std::lock_guard<std::mutex> lock(m);
        EXPECT_EQ(receiver.synchronizer.syncPool.synchronizedVec.size(), c.entries);
        EXPECT_EQ(receiver.width, c.width);
        if (c.entries == 1) {
            EXPECT_EQ(receiver.synchronizer.syncPool.synchronizedVec[0].frameInfo.frame_id, 3u);
            EXPECT_EQ(receiver.image.at<cv::Vec3b>(0, 0), cv::Vec3b(3, 2, 1)); // B,G,R bytes in R,G,B order
        }
    }
}

TEST(ReceiveImageCombined, KeepsTenBeforeAppendAndReportsDrops) {
    for (bool flag : {false, true}) {
        SCOPED_TRACE(flag ? "flag on" : "flag off");
        ReceiveImage receiver;
        receiver.synchronizer.SetWorkerMessageFlag(flag);
        {
            std::lock_guard<std::mutex> lock(m);
            for (std::uint32_t id = 100; id < 112; ++id) {
                SynchronizedData entry;
                entry.frameInfo.frame_id = id;
                receiver.synchronizer.syncPool.synchronizedVec.push_back(entry);
            }
        }
        testing::internal::CaptureStdout();
        receiver.callback(TOLVIXO::UniInfo{{uniFrame(7)}});
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out, flag ? "[Drop Data] Dropped 2 synchronizedData in ReceiveImage::callback(const UniInfo "
                              "&uniInfo).\n"
                            : "");
        std::lock_guard<std::mutex> lock(m);
        const auto &out_queue = receiver.synchronizer.syncPool.synchronizedVec;
        ASSERT_EQ(out_queue.size(), 11u);
        EXPECT_EQ(out_queue.front().frameInfo.frame_id, 102u);
        EXPECT_EQ(out_queue.back().frameInfo.frame_id, 7u);
    }
}

TEST(ReceiveImageCombined, FirstRecordStopsTheWorker) {
    ReceiveImage receiver;
    MessageCapture capture;
    receiver.synchronizer.Start();
    receiver.callback(TOLVIXO::UniInfo{{uniFrame(1)}});
    ASSERT_TRUE(eventually([&] { return capture.contains("break sync while."); }));

    // Separate frames are still queued but nobody pairs them any more.
    receiver.callback(makeFrame(2));
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(receiver.synchronizer.syncPool.frameInfoVec.size(), 1u);
    ASSERT_EQ(receiver.synchronizer.syncPool.synchronizedVec.size(), 1u);
    EXPECT_EQ(receiver.synchronizer.syncPool.synchronizedVec[0].frameInfo.frame_id, 1u);
}

} // namespace
