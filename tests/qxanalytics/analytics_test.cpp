// qxanalyze and qxoverlay in real pipelines, and the tracking rules on their own. Guards against: objects missed,
// boxed in the wrong place or given another id while in view, a mask that does not match the picture, a wrong frame
// class, frame and device fields that do not carry the properties, a mistyped ip-address or mac-address taken to be
// published with every frame (it must be refused, saying why, and the previous value kept); boxes, labels, the
// caption or the mask tint drawn wrongly (red and blue swapped, say), and pictures with nothing to draw being touched.

#include <set>

#include <opencv2/imgproc.hpp>

#include "centroid_tracker.h"
#include "gstqxmeta.h"
#include "pipeline_run.h"

namespace {

std::string logged; // the errors qxanalyze logs

void keepAnalyzeErrors(GstDebugCategory *category, GstDebugLevel level, const gchar *, const gchar *, gint, GObject *,
                       GstDebugMessage *message, gpointer) {
    if (level == GST_LEVEL_ERROR && std::string(gst_debug_category_get_name(category)) == "qxanalyze")
        logged.append(gst_debug_message_get(message)).append("\n");
}

TEST(Analyze, AttachesResultsThatMatchThePicture) {
    struct Case {
        const char *pattern, *format;
        int pixelBytes, width, height; // pixelBytes: of plane 0 (luma, or packed colour)
        const char *mode, *label;      // label: the frame class
        int firstJudged; // the first frame where the ball must be found (motion mode learns the scene over about 33
                         // frames); -1: a flat or still picture, so no objects and an all-background mask; 60: none
    };
    const std::vector<Case> cases = {
        {"ball", "RGB", 3, 320, 240, "distinct", "dark", 0},
        {"ball", "BGRx", 4, 320, 240, "distinct", "dark", 0},
        {"ball", "RGBx", 4, 320, 240, "distinct", "dark", 0},
        {"ball", "NV12", 1, 640, 480, "distinct", "dark", 0},
        {"ball", "I420", 1, 1920, 1080, "distinct", "dark", 0}, // a small ball in a large picture
        {"ball", "BGR", 3, 320, 240, "motion", "dark", 33},
        {"ball", "NV12", 1, 1920, 1080, "motion", "dark", 33},
        {"white", "BGR", 3, 320, 240, "distinct", "bright", -1},      // no contrast at all
        {"smpte", "I420", 1, 64, 48, "distinct", "colourful", 60},    // thin bars: contours without area
        {"smpte", "I420", 1, 320, 240, "distinct", "colourful", 60},  // more objects than are reported
        {"smpte75", "NV12", 1, 320, 240, "motion", "colourful", -1}}; // busy but still
    gst_debug_set_threshold_for_name("qxanalyze", GST_LEVEL_ERROR);
    struct KeepErrors { // taken out again at the end: left in GStreamer's list it would leak
        KeepErrors() { gst_debug_add_log_function(keepAnalyzeErrors, nullptr, nullptr); }
        ~KeepErrors() { gst_debug_remove_log_function(keepAnalyzeErrors); }
    } keepErrors;
    const int frames = 60, maskWidth = 64;
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " " + c.format + " " + std::to_string(c.width) + " " + c.mode);
        logged.clear();
        // The empty ip-address is taken (it clears the field); after the first valid address every other is refused.
        RunResult run = runPipeline(
            std::string("videotestsrc num-buffers=60 pattern=") + c.pattern + " ! video/x-raw,format=" + c.format +
            ",width=" + std::to_string(c.width) + ",height=" + std::to_string(c.height) +
            " ! qxanalyze mode=" + c.mode +
            " mask-width=64 stream-id=cam-7 device-id=dev-7 manufacturer=Acme model=Eye-2 serial=SN-42 "
            "fw-version=1.2.3 uri=rtsp://127.0.0.1/cam port=8554 ip-address=\"\" ip-address=::1 ip-address=localhost "
            "ip-address=10.1.2 ip-address=127.0.0.256 mac-address=02-00-5E-10-00-01 mac-address=02:00-5e:10:00:01 "
            "mac-address=aa:bb:cc:dd:ee:fg mac-address=02:00:5e:10:00 ! appsink name=out sync=false");
        ASSERT_TRUE(run.error.empty() && run.buffers.size() == frames) << run.error;
        EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 6) << logged;
        for (const char *message :
             {"ip-address \"127.0.0.256\" is not an IPv4 or IPv6 address; keeping the previous value",
              "mac-address \"02:00:5e:10:00\" is not six hex pairs separated by ':' or '-'; keeping the previous "
              "value"})
            EXPECT_NE(logged.find(message), std::string::npos) << logged;
        int found = 0, maskDisagreements = 0;
        std::set<int> ballIds;
        for (int i = 0; i < frames; ++i) {
            SCOPED_TRACE("frame " + std::to_string(i));
            GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(run.buffers[i].get());
            ASSERT_TRUE(meta && meta->frames.size() == 1 && meta->devices.size() == 1 &&
                        meta->frames[0].class_results.size() == 1);
            const VideoFrameData &f = meta->frames[0];
            const DeviceInfoData &d = meta->devices[0];
            EXPECT_EQ(std::tie(f.frame_id, f.stream_id, f.width, f.height, f.channels, f.depth, f.device_idx),
                      std::make_tuple(i, "cam-7", c.width, c.height, 3, 8, 0));
            EXPECT_EQ(std::tie(d.stream_id, d.dev_id, d.manufacturer, d.model, d.serial, d.fw_version, d.uri,
                               d.ip_address, d.mac_address, d.port),
                      std::make_tuple("cam-7", "dev-7", "Acme", "Eye-2", "SN-42", "1.2.3", "rtsp://127.0.0.1/cam",
                                      "::1", "02-00-5E-10-00-01", 8554));
            EXPECT_TRUE(f.class_results[0].label == c.label && f.class_results[0].prob > 0.5f);
            if (i < c.firstJudged) continue;
            // The ball is grey on black, so the first channel of plane 0 shows it.
            cv::Mat plane(c.height, c.width, CV_8UC(c.pixelBytes)), ball = cv::Mat::zeros(c.height, c.width, CV_8U);
            gst_buffer_extract(run.buffers[i].get(), 0, plane.data, plane.total() * c.pixelBytes);
            if (c.firstJudged >= 0) cv::extractChannel(plane > 128, ball, 0);
            const cv::Rect2f truth = cv::boundingRect(ball);
            EXPECT_TRUE(c.firstJudged >= 0 || f.det_results.empty());
            for (const auto &box : f.det_results) {
                const cv::Rect2f r(box.x1, box.y1, box.x2 - box.x1, box.y2 - box.y1);
                if ((truth & r).area() < 0.6f * (truth | r).area()) continue; // overlap below 60% of their extent
                ++found;
                ballIds.insert(box.obj_id);
            }
            // Cells mostly covered by the ball must be foreground, cells without any of it background.
            cv::Mat share;
            cv::resize(ball, share, cv::Size(maskWidth, maskWidth * c.height / c.width), 0, 0, cv::INTER_AREA);
            ASSERT_EQ(f.seg_results.size(), static_cast<std::size_t>(share.rows));
            for (int r = 0; r < share.rows; ++r)
                for (int col = 0; col < maskWidth; ++col)
                    maskDisagreements += f.seg_results[r].at(col).class_id == 1 ? share.at<uchar>(r, col) == 0
                                                                                : share.at<uchar>(r, col) >= 192;
        }
        EXPECT_EQ(maskDisagreements, 0);
        EXPECT_TRUE(c.firstJudged < 0 || found >= (frames - c.firstJudged) * 9 / 10) << found;
        EXPECT_LE(ballIds.size(), 1u) << "the ball's id changed while in view";
    }
}

// What a picture's results hold: a box, a frame class and a mask (also described at twice the picture's size, to be
// drawn scaled down, and drawn with labels switched off), or nothing that draws (a mask of background cells only,
// or of class 0 cells without labels).
enum Results { Everything, AtTwiceTheSize, Unlabelled, NoBatch, EmptyBatch, NoResults, BackgroundOnly, UnlabelledZero };

TEST(Overlay, ChangesExactlyThePixelsTheResultsCallFor) {
    const std::vector<std::pair<std::string, Results>> cases = {
        {"BGR", Everything},      {"RGB", Everything},      {"BGRx", Everything},    {"RGBx", Everything},
        {"BGRx", AtTwiceTheSize}, {"RGB", Unlabelled},      {"RGBx", NoBatch},       {"RGBx", EmptyBatch},
        {"BGR", NoResults},       {"RGBx", BackgroundOnly}, {"RGBx", UnlabelledZero}};
    const cv::Rect box(100, 80, 120, 100), label(97, 50, 160, 30), caption(0, 0, 160, 30); // picture pixels
    // Foreground cells (row, column) of a mask of 6 by 8 cells, 40 pixels square: runs, single cells, edges.
    const std::vector<std::pair<int, int>> foregroundCells = {{1, 0}, {2, 0}, {2, 7}, {3, 7},
                                                              {5, 0}, {5, 1}, {5, 2}, {5, 7}};
    for (const auto &[format, results] : cases) {
        SCOPED_TRACE(format + " results " + std::to_string(results));
        const bool drawn = results <= Unlabelled, labels = results != Unlabelled;
        const int bpp = format.size() == 4 ? 4 : 3;
        const float scale = results == AtTwiceTheSize ? 2 : 1;
        cv::Mat before(240, 320, CV_8UC(bpp)), tinted(240, 320, CV_8U, cv::Scalar(0)), outline = tinted.clone();
        cv::randu(before, cv::Scalar::all(0), cv::Scalar::all(256));
        VideoFrameData frame;
        frame.width = static_cast<int>(320 * scale);
        frame.height = static_cast<int>(240 * scale);
        if (drawn) {
            frame.det_results.push_back(
                {3, "object", 0, "", box.x * scale, box.y * scale, box.br().x * scale, box.br().y * scale, 0.9f});
            frame.class_results.push_back({0, "", "bright", 0.75f});
            cv::rectangle(outline, box.tl(), box.br(), cv::Scalar(255));
        }
        const quorix::ai::SegmentResult background{0, 0.9f, results == UnlabelledZero ? "" : "background"};
        if (results != NoResults) frame.seg_results.assign(6, std::vector<quorix::ai::SegmentResult>(8, background));
        for (const auto &[row, col] : drawn ? foregroundCells : std::vector<std::pair<int, int>>{}) {
            frame.seg_results[row][col] = {1, 0.9f, "foreground"};
            tinted(cv::Rect(col * 40, row * 40, 40, 40)).setTo(255);
        }
        GstBuffer *buffer = gst_buffer_new_memdup(before.data, before.total() * bpp);
        if (results != NoBatch) gst_buffer_add_qx_batch_meta(buffer)->frames.assign(results != EmptyBatch, frame);
        RunResult run = runPipeline("appsrc name=in format=time caps=video/x-raw,format=" + format +
                                        ",width=320,height=240,framerate=30/1 ! qxoverlay line-width=2 alpha=0.5 "
                                        "mask-color=0xFF0000 draw-labels=" +
                                        (labels ? "true" : "false") + " ! appsink name=out sync=false",
                                    buffer);
        ASSERT_TRUE(run.error.empty() && run.buffers.size() == 1) << run.error;
        cv::Mat after(240, 320, CV_8UC(bpp));
        gst_buffer_extract(run.buffers[0].get(), 0, after.data, after.total() * bpp);
        // Pixels near the outline may be drawn (the line's width), and so may the label's and caption's.
        cv::Mat untouched = 255 - tinted;
        if (drawn) untouched(cv::Rect(box.x - 3, box.y - 3, box.width + 6, box.height + 6)).setTo(0);
        if (drawn) untouched(cv::Rect(box.x + 3, box.y + 3, box.width - 6, box.height - 6)).setTo(255);
        for (const cv::Rect &zone : {label, caption})
            if (drawn && labels) untouched(zone).setTo(0);
        const cv::Scalar red = format[0] == 'R' ? cv::Scalar(255, 0, 0, 255) : cv::Scalar(0, 0, 255, 255);
        EXPECT_EQ(cv::norm(before, after, cv::NORM_INF, untouched), 0);
        EXPECT_LE(cv::norm(cv::Mat(before * 0.5 + red * 0.5), after, cv::NORM_INF, tinted), 1); // half pure red
        EXPECT_EQ(
            cv::norm(cv::Mat(after.size(), after.type(), cv::Scalar(0, 255, 0, 255)), after, cv::NORM_INF, outline), 0);
        const bool labelled = cv::norm(before(label), after(label), cv::NORM_INF) > 0;
        EXPECT_EQ(labelled && cv::norm(before(caption), after(caption), cv::NORM_INF) > 0, drawn && labels);
    }
}

TEST(CentroidTracker, KeepsIdsWithTheirObjects) {
    using Frames = std::vector<std::vector<cv::Point2f>>;
    // Centroids frame by frame, and the ids expected for them (gate 50, up to 2 frames missed).
    const std::vector<std::pair<Frames, std::vector<std::vector<int>>>> cases = {
        {{{{10, 10}, {200, 200}}, {{205, 195}, {15, 12}}}, {{0, 1}, {1, 0}}},     // positions count, not list order
        {{{{100, 100}, {140, 100}}, {{135, 100}, {101, 100}}}, {{0, 1}, {1, 0}}}, // the nearest pair wins
        {{{{10, 10}}, {{100, 10}}}, {{0}, {1}}},                                  // beyond the gate: a new object
        {{{{10, 10}}, {}, {}, {{12, 10}}}, {{0}, {}, {}, {0}}},                   // a short gap keeps the id
        {{{{10, 10}}, {}, {}, {}, {{12, 10}}}, {{0}, {}, {}, {}, {1}}},           // a long gap loses it
        {{{{10, 10}}, {{12, 10}, {300, 300}}}, {{0}, {0, 1}}}};                   // a newcomer gets its own id
    for (std::size_t c = 0; c < cases.size(); ++c) {
        qxanalytics::CentroidTracker tracker(50.f, 2);
        for (std::size_t i = 0; i < cases[c].first.size(); ++i)
            EXPECT_EQ(tracker.assign(cases[c].first[i]), cases[c].second[i]) << "case " << c << ", frame " << i;
    }
}

} // namespace
