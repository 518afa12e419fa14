// qxoverlay in real pipelines, over every format it takes. Guards against: boxes drawn in the wrong place, colour
// or scale, labels or the frame's caption missing (or drawn when switched off), a mask tinting the wrong cells or
// in the wrong colour (red and blue swapped), and pictures without anything to draw being touched at all.

#include <opencv2/imgproc.hpp>

#include "gstqxmeta.h"
#include "pipeline_run.h"

namespace {

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
    const std::vector<std::string> mask = {"........", "#.......", "#......#", ".......#", "........", "###....#"};
    for (const auto &[format, results] : cases) {
        SCOPED_TRACE(format + " results " + std::to_string(results));
        const bool drawn = results <= Unlabelled, labels = results != Unlabelled;
        const int bpp = format.size() == 4 ? 4 : 3;
        const float scale = results == AtTwiceTheSize ? 2 : 1;
        cv::Mat before(240, 320, CV_8UC(bpp)), tinted(240, 320, CV_8U, cv::Scalar(0)), outline = tinted.clone();
        cv::randu(before, cv::Scalar::all(0), cv::Scalar::all(256));
        GstBuffer *buffer = gst_buffer_new_memdup(before.data, before.total() * bpp);
        VideoFrameData frame;
        frame.width = static_cast<int>(320 * scale);
        frame.height = static_cast<int>(240 * scale);
        if (drawn) {
            frame.det_results.push_back(
                {3, "object", 0, "", box.x * scale, box.y * scale, box.br().x * scale, box.br().y * scale, 0.9f});
            frame.class_results.push_back({0, "", "bright", 0.75f});
            cv::rectangle(outline, box.tl(), box.br(), cv::Scalar(255));
        }
        const quorix::ai::SegmentResult foreground{1, 0.9f, "foreground"},
            background{0, 0.9f, results == UnlabelledZero ? "" : "background"};
        for (int row = 0; row < 6 && results != NoResults; ++row) {
            frame.seg_results.emplace_back();
            for (int col = 0; col < 8; ++col) {
                frame.seg_results.back().push_back(mask[row][col] == '#' && drawn ? foreground : background);
                if (mask[row][col] == '#' && drawn) tinted(cv::Rect(col * 40, row * 40, 40, 40)).setTo(255);
            }
        }
        if (results != NoBatch) gst_buffer_add_qx_batch_meta(buffer)->frames.assign(results != EmptyBatch, frame);
        RunResult run = runPipeline("appsrc name=in format=time caps=video/x-raw,format=" + format +
                                        ",width=320,height=240,framerate=30/1 ! qxoverlay line-width=2 alpha=0.5 "
                                        "mask-color=0xFF0000 draw-labels=" +
                                        (labels ? "true" : "false") + " ! appsink name=out sync=false",
                                    {"out"}, {buffer});
        gst_buffer_unref(buffer);
        ASSERT_TRUE(run.error.empty() && run.buffers["out"].size() == 1) << run.error;
        GstMapInfo map;
        ASSERT_TRUE(gst_buffer_map(run.buffers["out"][0].get(), &map, GST_MAP_READ));
        const cv::Mat after(240, 320, CV_8UC(bpp), map.data);
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
        gst_buffer_unmap(run.buffers["out"][0].get(), &map);
    }
}

} // namespace
