// qxanalyze in real pipelines, over every format it takes. Guards against: objects missed or boxed in the wrong
// place, a mask that does not match the picture, an object's id changing while it stays in view, a wrong frame
// class, frame and device fields that do not carry the properties, frame ids that do not start afresh with each
// run, and pixels altered on the way. Results are judged against facts measured from the raw pictures.

#include <chrono>
#include <set>

#include <opencv2/imgproc.hpp>

#include "digit_time.h"
#include "gstqxmeta.h"
#include "pipeline_run.h"

namespace {

struct AnalyzeCase {
    const char *pattern, *format;
    int pixelBytes, width, height; // pixelBytes: of plane 0 (luma, or packed colour)
    const char *mode, *label;
    int firstJudged; // the first frame where the ball must be found (motion mode learns the scene over about 33
                     // frames); -1: a flat or still picture, so no objects and an all-background mask; 60: none
};

TEST(Analyze, AttachesResultsThatMatchThePicture) {
    const std::vector<AnalyzeCase> cases = {
        {"ball", "BGR", 3, 320, 240, "distinct", "dark", 0},
        {"ball", "RGB", 3, 320, 240, "distinct", "dark", 0},
        {"ball", "BGRx", 4, 320, 240, "distinct", "dark", 0},
        {"ball", "RGBx", 4, 320, 240, "distinct", "dark", 0},
        {"ball", "I420", 1, 320, 240, "distinct", "dark", 0},
        {"ball", "NV12", 1, 640, 480, "distinct", "dark", 0},
        {"ball", "I420", 1, 1920, 1080, "distinct", "dark", 0},
        {"ball", "BGR", 3, 320, 240, "motion", "dark", 33},
        {"ball", "NV12", 1, 1920, 1080, "motion", "dark", 33},
        {"white", "BGR", 3, 320, 240, "distinct", "bright", -1},
        {"white", "I420", 1, 320, 240, "distinct", "bright", -1},
        {"black", "NV12", 1, 320, 240, "distinct", "dark", -1},
        {"smpte", "I420", 1, 320, 240, "distinct", "colourful", 60},
        {"smpte", "I420", 1, 64, 48, "distinct", "colourful", 60},
        {"smpte", "RGBx", 4, 320, 240, "distinct", "colourful", 60},
        {"smpte75", "NV12", 1, 320, 240, "motion", "colourful", -1},
    };
    const int frames = 60, maskWidth = 64;
    for (const AnalyzeCase &c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " " + c.format + " " + std::to_string(c.width) + " " + c.mode);
        const std::uint64_t earliest = qxanalytics::digitLocalTime(std::chrono::system_clock::now());
        RunResult run = runPipeline(
            std::string("videotestsrc num-buffers=60 pattern=") + c.pattern + " ! video/x-raw,format=" + c.format +
                ",width=" + std::to_string(c.width) + ",height=" + std::to_string(c.height) +
                " ! tee name=t ! queue ! appsink name=plain sync=false t. ! queue ! qxanalyze mode=" + c.mode +
                " mask-width=64 stream-id=cam-7 device-id=dev-7 manufacturer=Acme model=Eye-2 serial=SN-42 "
                "fw-version=1.2.3 uri=rtsp://127.0.0.1/cam ip-address=127.0.0.7 mac-address=02:00:00:aa:bb:cc "
                "port=8554 ! appsink name=out sync=false",
            {"plain", "out"}, {}, 2);
        const std::uint64_t latest = qxanalytics::digitLocalTime(std::chrono::system_clock::now());
        ASSERT_TRUE(run.error.empty() && run.buffers["out"].size() == frames && run.buffers["plain"].size() == frames)
            << run.error;
        int found = 0, maskDisagreements = 0;
        std::set<int> ballIds;
        for (int i = 0; i < frames; ++i) {
            SCOPED_TRACE("frame " + std::to_string(i));
            GstBuffer *plain = run.buffers["plain"][i].get(), *out = run.buffers["out"][i].get();
            GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(out);
            ASSERT_TRUE(!gst_buffer_get_qx_batch_meta(plain) && meta && meta->frames.size() == 1 &&
                        meta->devices.size() == 1);
            const VideoFrameData &f = meta->frames[0];
            const DeviceInfoData &d = meta->devices[0];
            EXPECT_EQ(std::tie(f.frame_id, f.stream_id, f.width, f.height, f.channels, f.depth, f.device_idx),
                      std::make_tuple(i, "cam-7", c.width, c.height, 3, 8, 0));
            EXPECT_EQ(std::tie(d.stream_id, d.dev_id, d.manufacturer, d.model, d.serial, d.fw_version, d.uri,
                               d.ip_address, d.mac_address, d.port),
                      std::make_tuple("cam-7", "dev-7", "Acme", "Eye-2", "SN-42", "1.2.3", "rtsp://127.0.0.1/cam",
                                      "127.0.0.7", "02:00:00:aa:bb:cc", 8554));
            EXPECT_TRUE(f.timestamp >= earliest && f.timestamp <= latest) << f.timestamp;
            ASSERT_EQ(f.class_results.size(), 1u);
            const quorix::ai::ClassificationResult &scene = f.class_results[0];
            EXPECT_TRUE(scene.label == c.label && scene.prob > 0.5f && scene.prob <= 1.f) << scene.label << scene.prob;
            // The pixels pass unchanged. The ball is grey on black, so the first channel of plane 0 shows it.
            GstMapInfo map;
            ASSERT_TRUE(gst_buffer_map(plain, &map, GST_MAP_READ));
            EXPECT_EQ(gst_buffer_memcmp(out, 0, map.data, map.size), 0) << "pixels changed";
            cv::Mat ball = cv::Mat::zeros(c.height, c.width, CV_8U);
            if (c.firstJudged >= 0)
                cv::extractChannel(cv::Mat(c.height, c.width, CV_8UC(c.pixelBytes), map.data) > 128, ball, 0);
            gst_buffer_unmap(plain, &map);
            if (i < c.firstJudged) continue;
            const cv::Rect2f truth = cv::boundingRect(ball);
            EXPECT_TRUE(c.firstJudged >= 0 || f.det_results.empty());
            for (const auto &box : f.det_results) {
                const cv::Rect2f r(box.x1, box.y1, box.x2 - box.x1, box.y2 - box.y1);
                const float overlap = (truth & r).area();
                if (overlap / (truth.area() + r.area() - overlap) < 0.6f) continue;
                ++found;
                ballIds.insert(box.obj_id);
            }
            // Cells mostly covered by the ball must be foreground, cells without any of it background.
            cv::Mat share, foreground(static_cast<int>(f.seg_results.size()), maskWidth, CV_8U, cv::Scalar(0));
            ASSERT_EQ(foreground.rows, maskWidth * c.height / c.width);
            cv::resize(ball, share, foreground.size(), 0, 0, cv::INTER_AREA);
            for (int r = 0; r < foreground.rows; ++r) {
                ASSERT_EQ(f.seg_results[r].size(), static_cast<std::size_t>(maskWidth));
                for (int col = 0; col < maskWidth; ++col)
                    foreground.at<uchar>(r, col) = f.seg_results[r][col].class_id == 1 ? 255 : 0;
            }
            maskDisagreements +=
                cv::countNonZero((share >= 192) & ~foreground) + cv::countNonZero((share == 0) & foreground);
        }
        EXPECT_EQ(maskDisagreements, 0);
        EXPECT_TRUE(c.firstJudged < 0 || found >= (frames - c.firstJudged) * 9 / 10) << found;
        EXPECT_LE(ballIds.size(), 1u) << "the ball's id changed while in view";
    }
}

} // namespace
