// The main job end to end: the demo's subscriber and publisher as two
// processes on a private bus, the way scripts/demo.sh runs them.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <filesystem>
#include <regex>

#include "qxtest/child_process.h"
#include "qxtest/config_root.h"

namespace {

using namespace std::chrono_literals;

// Frames the recording really holds, counted by demuxing it.
int countRecordedFrames(const std::string &path) {
    gst_init(nullptr, nullptr);
    const std::string description = "filesrc location=" + path + " ! matroskademux ! fakesink name=sink";
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(description.c_str(), &error);
    if (error) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
        return -1;
    }
    int frames = 0;
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    GstPad *pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad *, GstPadProbeInfo *, gpointer count) {
            ++*static_cast<int *>(count);
            return GST_PAD_PROBE_OK;
        },
        &frames, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *msg =
        gst_bus_timed_pop_filtered(bus, 30 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    EXPECT_TRUE(msg && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS) << "recording does not play to its end";
    if (msg) gst_message_unref(msg);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return frames;
}

int summaryNumber(const std::string &text, const std::string &pattern) {
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(pattern))) return -1;
    return std::stoi(match[1]);
}

// The box outline is pure green; the ball is the one bright, reddish-white
// blob (tinted by the mask) below the caption band at the top, where the
// frame's class is written in white. Returns whether a box was drawn; a drawn
// box must enclose the ball.
bool expectBoxAroundTheBall(const cv::Mat &picture) {
    constexpr int kCaptionRows = 24;
    std::vector<cv::Point> green;
    cv::Point2d ball(0, 0);
    int ballPixels = 0;
    for (int y = 0; y < picture.rows; ++y)
        for (int x = 0; x < picture.cols; ++x) {
            const cv::Vec3b p = picture.at<cv::Vec3b>(y, x); // B, G, R
            if (p[1] > 200 && p[0] < 80 && p[2] < 80) green.emplace_back(x, y);
            if (y >= kCaptionRows && p[2] > 200 && p[1] > 120 && p[0] > 80) {
                ball += cv::Point2d(x, y);
                ++ballPixels;
            }
        }
    EXPECT_GT(ballPixels, 20) << "no ball in the picture";
    if (green.size() < 20 || ballPixels <= 20) return false;
    ball *= 1.0 / ballPixels;
    const cv::Rect drawn = cv::boundingRect(green);
    EXPECT_TRUE(drawn.contains(cv::Point(static_cast<int>(ball.x), static_cast<int>(ball.y))))
        << "box at " << drawn << ", ball at " << ball;
    return true;
}

TEST(DemoMainJob, CarriesFramesAndResultsIntoTheRecordingAndSnapshots) {
    constexpr int kFrames = 60;
    qxtest::ConfigRoot root;
    qxtest::useBuildPlugins(root.path()); // inherited by both demo processes
    const std::string out = root.path() + "/out";

    qxtest::ChildProcess subscriber({QX_DEMO_PATH, "subscribe", "--expect", std::to_string(kFrames), "--seconds",
                                     "90", "--out", out},
                                    root.path());
    ASSERT_TRUE(subscriber.waitForOutput("waiting for marlet data", 60s)) << subscriber.err();
    qxtest::ChildProcess publisher({QX_DEMO_PATH, "publish", "--frames", std::to_string(kFrames)}, root.path());
    ASSERT_EQ(publisher.wait(120s), 0) << publisher.out() << publisher.err();
    ASSERT_EQ(subscriber.wait(120s), 0) << subscriber.out() << subscriber.err();

    const std::string summary = subscriber.out();
    EXPECT_NE(publisher.out().find("published " + std::to_string(kFrames) + " frames"), std::string::npos)
        << publisher.out();
    // The publisher gives discovery 1.5 s before its first frame; on a machine
    // busy with other tests that can be short, so the first few may go unheard.
    // That no frame is lost once both sides are matched is shown by the bus tests.
    EXPECT_GE(summaryNumber(summary, R"(frames received:\s+(\d+) distinct)"), kFrames - 6) << summary;
    // Frame-exact pairing (the demo's): every frame that arrived carries its results.
    EXPECT_EQ(summaryNumber(summary, R"(frames with matched results:\s+(\d+))"),
              summaryNumber(summary, R"(frames received:\s+(\d+) distinct)"))
        << summary;

    const int buffers = summaryNumber(summary, R"(\((\d+) buffers\))");
    EXPECT_EQ(countRecordedFrames(out + "/received.mkv"), buffers) << "every received buffer is recorded";

    std::vector<std::filesystem::path> snapshots;
    for (const auto &entry : std::filesystem::directory_iterator(out))
        if (entry.path().extension() == ".png") snapshots.push_back(entry.path());
    ASSERT_FALSE(snapshots.empty()) << summary;
    int withBox = 0;
    for (const auto &path : snapshots) {
        SCOPED_TRACE(path.string());
        const cv::Mat picture = cv::imread(path.string(), cv::IMREAD_COLOR);
        ASSERT_EQ(picture.cols, 640);
        ASSERT_EQ(picture.rows, 480);
        withBox += expectBoxAroundTheBall(picture) ? 1 : 0;
    }
    EXPECT_GT(withBox, 0) << summary;
}

} // namespace
