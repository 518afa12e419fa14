// qxedgesink end to end: a publishing pipeline in a child process, a
// subscriber with the bus library here. Every frame and every result must
// arrive as the input dictates, once.

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "sink_meta_plan.h"
#include "sink_support.h"

namespace {

using namespace sinktest;
using TOLVIXO::DeviceInfo;
using TOLVIXO::FrameInfo;
using TOLVIXO::SegmentInfo;
using Classification = TOLVIXO::Information<TOLVIXO::ClassificationData>;
using Detection = TOLVIXO::Information<TOLVIXO::DetectionBoxData>;

constexpr int kFrames = 8;
const char *const kAllGroups = "VideoFrameData+ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData";
const std::vector<std::string> kAllGroupNames = {"VideoFrameData", "ClassificationData", "DetectionBoxData",
                                                 "SegmentationData", "DeviceInfoData"};
const char *const kFillerStreamId = "b5d84236-a23d-49fc-a574-e0cd944490bb";

class SinkPublishTest : public ::testing::Test {
  protected:
    void SetUp() override {
        initGst();
        root_.enter();
    }
    // Subscribes first, then lets the publisher run to its end; returns what arrived per group.
    // Discovery between the two processes needs a moment on loopback, so the
    // publisher waits 1.5 s in READY; a late match shows as missing leading frames.
    std::map<std::string, std::vector<Pairs>> publish(bool uni, const std::vector<std::string> &groups,
                                                      const std::string &launch, std::vector<std::string> options = {},
                                                      const std::string &debug = "") {
        BusReader reader(uni, groups);
        options.insert(options.end(), {"--settle-ms", "1500"});
        publisher_ = startPipeline(root_, launch, options, debug);
        auto received = reader.collect(*publisher_, kFrames);
        EXPECT_EQ(publisher_->wait(60s), 0) << publisher_->err();
        return received;
    }
    qxtest::ConfigRoot root_;
    std::unique_ptr<qxtest::ChildProcess> publisher_;
};

std::string source(const std::string &format, int width, int height) {
    return "videotestsrc num-buffers=" + std::to_string(kFrames) + " pattern=ball ! video/x-raw,format=" + format +
           ",width=" + std::to_string(width) + ",height=" + std::to_string(height) + ",framerate=30000/1001";
}

// Raw pictures travel as B,G,R bytes, row after row.
bool samePicture(const std::vector<unsigned char> &data, const cv::Mat &bgr) {
    return std::equal(data.begin(), data.end(), bgr.datastart, bgr.dataend);
}

// Frame ids must run without gaps up to the last frame: the bus is reliable,
// so a frame lost once the subscriber matched is a fault.
void expectContiguousToEnd(const std::vector<std::uint32_t> &ids, std::uint32_t last) {
    ASSERT_FALSE(ids.empty());
    EXPECT_EQ(ids.back(), last);
    for (std::size_t i = 1; i < ids.size(); ++i) {
        EXPECT_EQ(ids[i], ids[i - 1] + 1) << "gap or repeat after frame " << ids[i - 1];
    }
}

// Result records carry the frame id: each group must run without gaps or
// repeats up to the last frame. Groups match the subscriber one by one, so
// each may miss a different number of leading frames.
void expectResultIdsContiguous(std::map<std::string, std::vector<Pairs>> &received, std::uint32_t last) {
    std::map<std::string, std::vector<std::uint32_t>> ids;
    for (const Pairs &pairs : received["ClassificationData"])
        ids["ClassificationData"].push_back(decode<Classification>(pairs).frame_id);
    for (const Pairs &pairs : received["DetectionBoxData"])
        ids["DetectionBoxData"].push_back(decode<Detection>(pairs).frame_id);
    for (const Pairs &pairs : received["SegmentationData"])
        ids["SegmentationData"].push_back(decode<SegmentInfo>(pairs).frame_id);
    for (const auto &[name, list] : ids) {
        SCOPED_TRACE(name);
        expectContiguousToEnd(list, last);
    }
}

TEST_F(SinkPublishTest, RawFramesWithoutMetadataPublishPictureAndFillers) {
    struct Case {
        const char *format;
        int width;
        int height;
    };
    // 322 makes I420/NV12 strides differ from the width. BGR uses a width
    // whose stride is exactly width x 3 (padded BGR rows are refused, see below).
    const std::vector<Case> cases = {{"I420", 322, 240}, {"NV12", 322, 240}, {"BGR", 320, 240}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.format);
        const std::string input = source(c.format, c.width, c.height);
        const auto reference = srctest::referenceFrames(input);
        ASSERT_EQ(reference.size(), static_cast<std::size_t>(kFrames));

        auto received = publish(false, kAllGroupNames, input + " ! qxedgesink name=sink taggroups=" + kAllGroups);
        ASSERT_FALSE(HasFailure());

        std::vector<std::uint32_t> ids;
        for (const Pairs &pairs : received["VideoFrameData"]) {
            const auto frame = decode<FrameInfo>(pairs);
            ids.push_back(frame.frame_id);
            ASSERT_LT(frame.frame_id, reference.size());
            EXPECT_TRUE(samePicture(frame.data, reference[frame.frame_id])) << "picture of frame " << frame.frame_id;
            EXPECT_EQ(std::tie(frame.width, frame.height, frame.size, frame.channels, frame.stream_id,
                               frame.compression, frame.format),
                      std::make_tuple(static_cast<std::uint32_t>(c.width), static_cast<std::uint32_t>(c.height),
                                      static_cast<std::uint32_t>(frame.data.size()), 3u, std::string(kFillerStreamId),
                                      std::string("com.vision.models.COMPRESSION_KIND_NONE"),
                                      std::string("com.vision.models.PIXEL_FORMAT_RGB8")));
            EXPECT_FLOAT_EQ(frame.framerate, 29.0f);
        }
        expectContiguousToEnd(ids, kFrames - 1);

        for (const Pairs &pairs : received["DeviceInfoData"]) {
            const auto device = decode<DeviceInfo>(pairs);
            EXPECT_EQ(std::tie(device.port, device.manufacturer, device.serial, device.uri, device.protocol),
                      std::make_tuple(-1, std::string("QUORIX"), std::string(kFillerStreamId),
                                      std::string("XXXXXXXXXXXXXXXXXXXX"),
                                      std::string("com.vision.models.INTERFACE_DDS")));
        }
        for (const Pairs &pairs : received["ClassificationData"]) {
            const auto results = decode<Classification>(pairs);
            ASSERT_EQ(results.data.size(), 3u) << "filler results must not pile up across frames";
            EXPECT_EQ(results.data[2].index, 2);
            EXPECT_EQ(results.data[0].label, "[fake] test classification label string");
        }
        for (const Pairs &pairs : received["DetectionBoxData"]) {
            const auto results = decode<Detection>(pairs);
            ASSERT_EQ(results.data.size(), 3u);
            EXPECT_EQ(results.data[1].class_label, "X");
            EXPECT_FLOAT_EQ(results.data[1].y1, 456.0f);
        }
        for (const Pairs &pairs : received["SegmentationData"]) {
            const auto results = decode<SegmentInfo>(pairs);
            ASSERT_EQ(results.data.size(), 10000u);
            EXPECT_EQ(results.data[9999].id, 9999u);
            EXPECT_EQ(results.data[6].label, "car");
            EXPECT_EQ(results.data[7].label, "background");
            EXPECT_EQ(results.data[0].width, 100u);
        }
        expectResultIdsContiguous(received, kFrames - 1);
        EXPECT_FALSE(received["DeviceInfoData"].empty());
        EXPECT_LE(received["DeviceInfoData"].size(), static_cast<std::size_t>(kFrames)) << "a device record repeated";
    }
}

TEST_F(SinkPublishTest, BatchMetadataIsPublishedOncePerFrame) {
    const int width = 64;
    const int height = 48;
    auto received =
        publish(false, kAllGroupNames,
                source("I420", width, height) + " ! qxedgesink name=sink taggroups=" + kAllGroups, {"--meta"});
    ASSERT_FALSE(HasFailure());

    std::vector<std::uint32_t> ids;
    for (const Pairs &pairs : received["VideoFrameData"]) {
        const auto frame = decode<FrameInfo>(pairs);
        ids.push_back(frame.frame_id);
        const std::uint64_t n = frame.frame_id - sinkplan::kFrameIdBase;
        EXPECT_EQ(frame.stream_id, "cam-b");
        EXPECT_EQ(frame.timestamp, static_cast<std::int64_t>(20260101120000000ULL + n));
        EXPECT_EQ(frame.width, static_cast<std::uint32_t>(width));
        EXPECT_EQ(frame.format, "com.vision.models.PIXEL_FORMAT_RGB8");
        EXPECT_EQ(frame.size, static_cast<std::uint32_t>(width * height * 3));
    }
    expectContiguousToEnd(ids, sinkplan::kFrameIdBase + kFrames - 1);

    for (const Pairs &pairs : received["ClassificationData"]) {
        const auto results = decode<Classification>(pairs);
        const std::uint64_t n = results.frame_id - sinkplan::kFrameIdBase;
        EXPECT_EQ(results.stream_id, "cam-b");
        EXPECT_FALSE(results.engine_id.empty());
        ASSERT_EQ(results.data.size(), n % 3 + 1) << "results of an earlier frame repeated";
        EXPECT_EQ(results.data.back().output, "out-" + std::to_string(n));
        EXPECT_EQ(results.data.back().label, "label-" + std::to_string(n % 3));
    }
    for (const Pairs &pairs : received["DetectionBoxData"]) {
        const auto results = decode<Detection>(pairs);
        const std::uint64_t n = results.frame_id - sinkplan::kFrameIdBase;
        ASSERT_EQ(results.data.size(), 1u);
        const auto &box = results.data[0];
        EXPECT_EQ(std::tie(box.obj_id, box.class_id, box.obj_label, box.class_label, box.x2, box.probability, box.meta),
                  std::make_tuple(static_cast<std::int32_t>(n), 7, std::string("person"), std::string("human"), 30.0f,
                                  0.875f, "frame " + std::to_string(n)));
    }
    const auto runs = sinkplan::expectedRuns();
    for (const Pairs &pairs : received["SegmentationData"]) {
        const auto results = decode<SegmentInfo>(pairs);
        ASSERT_EQ(results.data.size(), runs.size());
        for (std::size_t i = 0; i < runs.size(); ++i) {
            const auto &got = results.data[i];
            EXPECT_EQ(
                std::tie(got.id, got.color, got.label, got.repeat, got.size, got.probability, got.width, got.height),
                std::make_tuple(static_cast<std::uint32_t>(i), runs[i].color, std::string(runs[i].label),
                                runs[i].repeat, runs[i].repeat, runs[i].probability, sinkplan::kSegWidth,
                                sinkplan::kSegHeight))
                << "run " << i;
        }
    }
    expectResultIdsContiguous(received, sinkplan::kFrameIdBase + kFrames - 1);
    // Device records carry no frame id: they follow the frames in order and
    // end with the last one; odd frames point past the device list.
    const auto &devices = received["DeviceInfoData"];
    ASSERT_FALSE(devices.empty());
    ASSERT_LE(devices.size(), static_cast<std::size_t>(kFrames));
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const auto device = decode<DeviceInfo>(devices[i]);
        const std::uint64_t n = kFrames - devices.size() + i;
        if (n % 2 == 0) {
            EXPECT_EQ(device.port, srcexpect::device().port);
            EXPECT_EQ(device.uri, "Not Set");
            EXPECT_EQ(device.serial, "SN-" + std::to_string(n));
            EXPECT_EQ(device.manufacturer, srcexpect::device().manufacturer);
        } else {
            EXPECT_EQ(device.port, -1);
            EXPECT_EQ(device.manufacturer, "QUORIX");
            EXPECT_EQ(device.serial, kFillerStreamId);
        }
    }
}

TEST_F(SinkPublishTest, UniPublishesOneCombinedSamplePerFrame) {
    const int width = 64;
    const int height = 48;
    const std::string input = source("NV12", width, height);
    const auto reference = srctest::referenceFrames(input);
    auto received = publish(true, {}, input + " ! qxedgesink name=sink taggroups=uni", {"--meta"});
    ASSERT_FALSE(HasFailure());

    std::vector<std::uint32_t> ids;
    for (const Pairs &pairs : received["VideoFrameData"]) {
        const auto uni = TOLVIXO::UniInfo::Decode(pairs);
        ASSERT_EQ(uni.videoList.size(), 1u);
        ASSERT_EQ(uni.deviceList.size(), 1u);
        const auto &video = uni.videoList[0];
        ids.push_back(video.frame_id);
        const std::uint64_t n = video.frame_id - sinkplan::kFrameIdBase;
        ASSERT_LT(n, reference.size());
        EXPECT_TRUE(samePicture(video.data, reference[n])) << "picture of frame " << n;
        EXPECT_EQ(video.size, video.data.size());
        EXPECT_FLOAT_EQ(video.framerate, 29.0f);
        EXPECT_EQ(video.classificationResult.size(), n % 3 + 1);
        ASSERT_EQ(video.detectionResult.size(), 1u);
        EXPECT_EQ(video.detectionResult[0].obj_id, n);
        EXPECT_EQ(video.segmentationResult.size(), sinkplan::expectedRuns().size());
        EXPECT_EQ(uni.deviceList[0].manufacturer, n % 2 == 0 ? srcexpect::device().manufacturer : "QUORIX");
    }
    expectContiguousToEnd(ids, sinkplan::kFrameIdBase + kFrames - 1);
}

TEST_F(SinkPublishTest, EncodedInputIsPublishedAsTheWholeBuffer) {
    const std::string input = "videotestsrc num-buffers=" + std::to_string(kFrames) +
                              " pattern=ball ! video/x-raw,width=160,height=120,framerate=30/1 ! jpegenc";
    const auto reference = srctest::referenceEncoded(input);
    ASSERT_EQ(reference.size(), static_cast<std::size_t>(kFrames));
    auto received = publish(false, {}, input + " ! qxedgesink name=sink taggroups=VideoFrameData");
    ASSERT_FALSE(HasFailure());

    // Encoded buffers carry no frame number; what arrived must be the last
    // frames of the input, in order.
    const auto &samples = received["VideoFrameData"];
    ASSERT_FALSE(samples.empty());
    ASSERT_LE(samples.size(), reference.size());
    const std::size_t first = reference.size() - samples.size();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE(first + i);
        const auto frame = decode<FrameInfo>(samples[i]);
        EXPECT_EQ(frame.compression, "com.vision.models.COMPRESSION_KIND_GST_ENCODED");
        EXPECT_TRUE(frame.data == reference[first + i]);
        EXPECT_EQ(frame.size, reference[first + i].size());
        EXPECT_EQ(frame.width, 160u);
        EXPECT_EQ(frame.height, 120u);
        EXPECT_FLOAT_EQ(frame.framerate, 30.0f);
    }
}

// Names unknown to padding and publishing are reported and skipped; the
// session only accepts known names at open, so the list is changed after it.
TEST_F(SinkPublishTest, UnknownNamesWhilePublishingAreLoggedAndOthersStillGo) {
    auto received = publish(false, {"DeviceInfoData"},
                            source("I420", 64, 48) + " ! qxedgesink name=sink taggroups=VideoFrameData+DeviceInfoData",
                            {"--retag", "VideoFrameData+Bogus+EngineInfoData+DeviceInfoData"}, "qxedgesink:4");
    ASSERT_FALSE(HasFailure());
    const std::string log = publisher_->err();
    for (const char *line : {"No matched tag group name to pad data to edge instance.",
                             "No matched tag group name to publish data to marlet.",
                             "Add EngineInfoData not support yet.", "Publish EngineInfoData not support yet."}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(log.find("No matched taggroup in metadata loader."), std::string::npos);
    ASSERT_FALSE(received["VideoFrameData"].empty());
    EXPECT_FALSE(received["DeviceInfoData"].empty());
    EXPECT_LE(received["DeviceInfoData"].size(), static_cast<std::size_t>(kFrames));
    EXPECT_EQ(decode<FrameInfo>(received["VideoFrameData"].back()).frame_id, static_cast<std::uint32_t>(kFrames - 1));
}

} // namespace
