// qxanalyze in real pipelines: what it attaches is checked against facts measured
// independently from the raw pictures (the ball's white pixels), not against its own code.

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "gstqxmeta.h"
#include "pipeline_runner.h"

using namespace qxanalytics_test;

namespace {

// The luma of a sample's picture, whatever its format, computed with GStreamer's own frame map.
cv::Mat lumaOf(GstSample *sample) {
    GstVideoInfo info;
    EXPECT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(sample)));
    GstVideoFrame frame;
    EXPECT_TRUE(gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ));
    const int w = GST_VIDEO_INFO_WIDTH(&info);
    const int h = GST_VIDEO_INFO_HEIGHT(&info);
    cv::Mat luma;
    const auto stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
    void *data = GST_VIDEO_FRAME_PLANE_DATA(&frame, 0);
    switch (GST_VIDEO_INFO_FORMAT(&info)) {
    case GST_VIDEO_FORMAT_BGR:
        cv::cvtColor(cv::Mat(h, w, CV_8UC3, data, stride), luma, cv::COLOR_BGR2GRAY);
        break;
    case GST_VIDEO_FORMAT_RGBx:
        cv::cvtColor(cv::Mat(h, w, CV_8UC4, data, stride), luma, cv::COLOR_RGBA2GRAY);
        break;
    default:
        luma = cv::Mat(h, w, CV_8UC1, data, stride).clone();
        break; // I420, NV12: plane 0 is luma
    }
    gst_video_frame_unmap(&frame);
    return luma;
}

double iou(const cv::Rect2f &a, const cv::Rect2f &b) {
    const float overlap = (a & b).area();
    return overlap / (a.area() + b.area() - overlap);
}

const VideoFrameData &firstFrame(GstSample *sample) {
    GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(gst_sample_get_buffer(sample));
    if (!meta || meta->frames.empty()) throw std::runtime_error("buffer without batch metadata");
    return meta->frames.front();
}

struct BallCase {
    const char *format;
    int width;
    int height;
    const char *mode;
    int firstJudged; // motion mode may show ghosts of early frames until its background has five samples
};

class BallDetection : public ::testing::TestWithParam<BallCase> {};

TEST_P(BallDetection, BoxesAndMaskCoverTheBall) {
    const BallCase c = GetParam();
    const int frames = 60;
    const int maskWidth = 64;
    Pipeline pipeline("videotestsrc pattern=ball num-buffers=" + std::to_string(frames) +
                      " ! video/x-raw,format=" + c.format + ",width=" + std::to_string(c.width) +
                      ",height=" + std::to_string(c.height) + " ! qxanalyze mode=" + c.mode +
                      " mask-width=" + std::to_string(maskWidth) + " ! appsink name=out sync=false");
    auto samples = pipeline.run({"out"});
    ASSERT_EQ(pipeline.error(), "");
    ASSERT_EQ(samples["out"].size(), static_cast<std::size_t>(frames));

    int found = 0;
    int maskDisagreements = 0;
    for (std::size_t i = c.firstJudged; i < samples["out"].size(); ++i) {
        GstSample *sample = samples["out"][i];
        const cv::Mat white = lumaOf(sample) > 128;
        const cv::Rect2f truth = cv::boundingRect(white);
        ASSERT_GT(truth.area(), 0) << "the test pattern shows no ball";
        const VideoFrameData &frame = firstFrame(sample);
        const bool overlaps = std::any_of(frame.det_results.begin(), frame.det_results.end(), [&](const auto &box) {
            return iou(truth, cv::Rect2f(box.x1, box.y1, box.x2 - box.x1, box.y2 - box.y1)) >= 0.6;
        });
        found += overlaps ? 1 : 0;

        // Cells mostly covered by the ball must be foreground, cells without any of it background.
        ASSERT_EQ(frame.seg_results.front().size(), static_cast<std::size_t>(maskWidth));
        const int rows = static_cast<int>(frame.seg_results.size());
        ASSERT_EQ(rows, maskWidth * c.height / c.width);
        for (int r = 0; r < rows; ++r) {
            for (int col = 0; col < maskWidth; ++col) {
                const cv::Rect cell(col * c.width / maskWidth, r * c.height / rows, c.width / maskWidth,
                                    c.height / rows);
                const double share = cv::countNonZero(white(cell)) / static_cast<double>(cell.area());
                const bool foreground = frame.seg_results[r][col].class_id == 1;
                if ((share >= 0.75 && !foreground) || (share == 0.0 && foreground)) ++maskDisagreements;
            }
        }
    }
    EXPECT_GE(found, (frames - c.firstJudged) * 9 / 10);
    EXPECT_EQ(maskDisagreements, 0);
    releaseSamples(samples);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, BallDetection,
    ::testing::Values(BallCase{"BGR", 320, 240, "distinct", 0}, BallCase{"RGBx", 320, 240, "distinct", 0},
                      BallCase{"I420", 320, 240, "distinct", 0}, BallCase{"NV12", 640, 480, "distinct", 0},
                      BallCase{"I420", 1920, 1080, "distinct", 0}, BallCase{"BGR", 320, 240, "motion", 33},
                      BallCase{"NV12", 1920, 1080, "motion", 33}),
    [](const auto &info) {
        return std::string(info.param.format) + "_" + std::to_string(info.param.width) + "_" + info.param.mode;
    });

TEST(AnalyzeMetadata, CarriesDeviceAndFrameFieldsFromProperties) {
    Pipeline pipeline("videotestsrc pattern=ball num-buffers=12 ! video/x-raw,format=BGRx,width=160,height=120 ! "
                      "qxanalyze stream-id=cam-7 device-id=dev-7 manufacturer=Acme model=Eye-2 serial=SN-42 "
                      "fw-version=1.2.3 uri=rtsp://127.0.0.1/cam ip-address=127.0.0.7 mac-address=02:00:00:aa:bb:cc "
                      "port=8554 ! appsink name=out sync=false");
    auto samples = pipeline.run({"out"});
    ASSERT_EQ(pipeline.error(), "");
    ASSERT_EQ(samples["out"].size(), 12u);
    for (std::size_t i = 0; i < samples["out"].size(); ++i) {
        GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(gst_sample_get_buffer(samples["out"][i]));
        ASSERT_NE(meta, nullptr);
        ASSERT_EQ(meta->frames.size(), 1u);
        ASSERT_EQ(meta->devices.size(), 1u);
        const VideoFrameData &f = meta->frames[0];
        EXPECT_EQ(std::tie(f.frame_id, f.stream_id, f.width, f.height, f.channels, f.depth, f.device_idx),
                  std::make_tuple(static_cast<int>(i), "cam-7", 160, 120, 3, 8, 0));
        EXPECT_GT(f.timestamp, 20000101000000000ull); // digits of a local date and time
        const DeviceInfoData &d = meta->devices[0];
        EXPECT_EQ(std::tie(d.stream_id, d.dev_id, d.manufacturer, d.model, d.serial, d.fw_version, d.uri, d.ip_address,
                           d.mac_address, d.port),
                  std::make_tuple("cam-7", "dev-7", "Acme", "Eye-2", "SN-42", "1.2.3", "rtsp://127.0.0.1/cam",
                                  "127.0.0.7", "02:00:00:aa:bb:cc", 8554));
    }
    releaseSamples(samples);
}

TEST(AnalyzeMetadata, FrameIdsCountFromZeroPerStreamAndRestart) {
    Pipeline pipeline("videotestsrc num-buffers=5 ! video/x-raw,format=I420,width=64,height=48 ! qxanalyze ! "
                      "appsink name=a sync=false "
                      "videotestsrc num-buffers=9 ! video/x-raw,format=BGR,width=64,height=48 ! qxanalyze ! "
                      "appsink name=b sync=false");
    for (int run = 0; run < 2; ++run) {
        auto samples = pipeline.run({"a", "b"});
        ASSERT_EQ(pipeline.error(), "");
        for (const auto &[sink, expected] : {std::pair<std::string, std::size_t>{"a", 5}, {"b", 9}}) {
            ASSERT_EQ(samples[sink].size(), expected) << sink;
            for (std::size_t i = 0; i < expected; ++i)
                EXPECT_EQ(firstFrame(samples[sink][i]).frame_id, static_cast<int>(i)) << sink << " run " << run;
        }
        releaseSamples(samples);
    }
}

struct SceneCase {
    const char *pattern;
    const char *format;
    const char *mode;
    const char *label;
    bool noObjects; // a flat picture, or a still one in motion mode: no objects, an all-background mask
};

class SceneClassification : public ::testing::TestWithParam<SceneCase> {};

TEST_P(SceneClassification, LabelsTheFrame) {
    const SceneCase c = GetParam();
    Pipeline pipeline(std::string("videotestsrc num-buffers=3 pattern=") + c.pattern + " ! video/x-raw,format=" +
                      c.format + ",width=320,height=240 ! qxanalyze mode=" + c.mode + " ! appsink name=out sync=false");
    auto samples = pipeline.run({"out"});
    ASSERT_EQ(pipeline.error(), "");
    ASSERT_FALSE(samples["out"].empty());
    for (GstSample *sample : samples["out"]) {
        const VideoFrameData &frame = firstFrame(sample);
        ASSERT_EQ(frame.class_results.size(), 1u);
        EXPECT_EQ(frame.class_results[0].label, c.label);
        EXPECT_GT(frame.class_results[0].prob, 0.5f);
        EXPECT_LE(frame.class_results[0].prob, 1.0f);
        if (c.noObjects) {
            EXPECT_TRUE(frame.det_results.empty());
            for (const auto &row : frame.seg_results)
                for (const auto &cell : row)
                    ASSERT_EQ(cell.class_id, 0);
        }
    }
    releaseSamples(samples);
}

INSTANTIATE_TEST_SUITE_P(Patterns, SceneClassification,
                         ::testing::Values(SceneCase{"white", "BGR", "distinct", "bright", true},
                                           SceneCase{"white", "I420", "distinct", "bright", true},
                                           SceneCase{"black", "NV12", "distinct", "dark", true},
                                           SceneCase{"ball", "RGB", "distinct", "dark", false},
                                           SceneCase{"smpte", "I420", "distinct", "colourful", false},
                                           SceneCase{"smpte75", "NV12", "motion", "colourful", true},
                                           SceneCase{"smpte", "RGBx", "distinct", "colourful", false}),
                         [](const auto &info) {
                             return std::string(info.param.pattern) + "_" + info.param.format + "_" + info.param.mode;
                         });

TEST(AnalyzePixels, PassUnchangedWithResultsAttached) {
    Pipeline reference("videotestsrc pattern=ball num-buffers=4 ! video/x-raw,format=NV12,width=320,height=240 ! "
                       "tee name=t ! queue ! appsink name=plain sync=false t. ! queue ! qxanalyze ! "
                       "appsink name=analysed sync=false");
    auto samples = reference.run({"plain", "analysed"});
    ASSERT_EQ(reference.error(), "");
    ASSERT_EQ(samples["plain"].size(), samples["analysed"].size());
    for (std::size_t i = 0; i < samples["plain"].size(); ++i) {
        GstBuffer *plain = gst_sample_get_buffer(samples["plain"][i]);
        GstBuffer *analysed = gst_sample_get_buffer(samples["analysed"][i]);
        GstMapInfo a, b;
        ASSERT_TRUE(gst_buffer_map(plain, &a, GST_MAP_READ));
        ASSERT_TRUE(gst_buffer_map(analysed, &b, GST_MAP_READ));
        EXPECT_EQ(a.size, b.size);
        EXPECT_EQ(std::memcmp(a.data, b.data, std::min(a.size, b.size)), 0) << "frame " << i;
        gst_buffer_unmap(plain, &a);
        gst_buffer_unmap(analysed, &b);
        EXPECT_EQ(gst_buffer_get_qx_batch_meta(plain), nullptr);
        EXPECT_NE(gst_buffer_get_qx_batch_meta(analysed), nullptr);
    }
    releaseSamples(samples);
}

} // namespace
