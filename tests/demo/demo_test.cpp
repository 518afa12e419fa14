// The main job end to end, as scripts/demo.sh runs it: subscriber and publisher processes on a private bus. Guards
// against frames or results lost between them, a recording missing received frames, snapshots without boxes.

#include <chrono>
#include <filesystem>
#include <regex>

#include <gst/app/gstappsink.h>
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "qxtest/child_process.h"
#include "qxtest/config_root.h"

namespace {

int summaryNumber(const std::string &text, const char *pattern) {
    std::smatch match;
    return std::regex_search(text, match, std::regex(pattern)) ? std::stoi(match[1]) : -1;
}

// Frames the recording really holds, counted by demuxing it to its end.
int countRecordedFrames(const std::string &path) {
    gst_init(nullptr, nullptr);
    GstElement *pipeline = gst_parse_launch(
        ("filesrc location=" + path + " ! matroskademux ! appsink name=sink sync=false").c_str(), nullptr);
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    int frames = 0;
    for (; GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 30 * GST_SECOND); ++frames)
        gst_sample_unref(sample);
    EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(sink))) << "the recording does not play to its end";
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    return frames;
}

TEST(DemoMainJob, CarriesFramesAndResultsIntoTheRecordingAndSnapshots) {
    qxtest::ConfigRoot root;
    qxtest::useBuildPlugins(root.path()); // inherited by both demo processes
    const std::string out = root.path() + "/out";
    qxtest::ChildProcess subscriber({QX_DEMO_PATH, "subscribe", "--expect", "60", "--seconds", "90", "--out", out},
                                    root.path());
    ASSERT_TRUE(subscriber.waitForOutput("waiting for marlet data", std::chrono::seconds(60))) << subscriber.err();
    qxtest::ChildProcess publisher({QX_DEMO_PATH, "publish", "--frames", "60"}, root.path());
    ASSERT_EQ(publisher.wait(std::chrono::seconds(120)), 0) << publisher.out() << publisher.err();
    ASSERT_EQ(subscriber.wait(std::chrono::seconds(120)), 0) << subscriber.out() << subscriber.err();
    const std::string summary = subscriber.out();
    EXPECT_NE(publisher.out().find("published 60 frames"), std::string::npos) << publisher.out();
    // A busy machine may lose the first frames to discovery; frame-exact pairing gives every arrival its results.
    const int received = summaryNumber(summary, R"(frames received:\s+(\d+) distinct)");
    EXPECT_GE(received, 60 - 6) << summary;
    EXPECT_EQ(summaryNumber(summary, R"(frames with matched results:\s+(\d+))"), received) << summary;
    EXPECT_EQ(countRecordedFrames(out + "/received.mkv"), summaryNumber(summary, R"(\((\d+) buffers\))"))
        << "every received buffer is recorded";
    // The box outline is pure green; the ball is the one bright, reddish-white blob (tinted by the mask) below the
    // caption band at the top, where the frame's class is written in white. Every box drawn must enclose the ball.
    int withBox = 0;
    for (const auto &entry : std::filesystem::directory_iterator(out)) {
        if (entry.path().extension() != ".png") continue;
        SCOPED_TRACE(entry.path().string());
        const cv::Mat picture = cv::imread(entry.path().string(), cv::IMREAD_COLOR);
        ASSERT_EQ(picture.size(), cv::Size(640, 480));
        cv::Mat green, ball;
        cv::inRange(picture, cv::Scalar(0, 201, 0), cv::Scalar(79, 255, 79), green);
        cv::inRange(picture, cv::Scalar(81, 121, 201), cv::Scalar(255, 255, 255), ball);
        ball.rowRange(0, 24).setTo(0);
        const cv::Moments blob = cv::moments(ball, true);
        ASSERT_GT(blob.m00, 20) << "no ball in the picture";
        if (cv::countNonZero(green) < 20) continue; // no box in this one
        ++withBox;
        const cv::Point centre(cvRound(blob.m10 / blob.m00), cvRound(blob.m01 / blob.m00));
        EXPECT_TRUE(cv::boundingRect(green).contains(centre)) << cv::boundingRect(green) << " misses " << centre;
    }
    EXPECT_GT(withBox, 0) << summary;
}

} // namespace
