// Guards the picture and time helpers of frame records: a payload copied into
// the image shifted, partly or past its end, a compression kind taken for
// another or not reported, and frame stamps that are not the local time now.

#include <chrono>
#include <ctime>
#include <regex>
#include <stdexcept>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "frame_information.h"
#include "uni_information.h"

using TOLVIXO::FrameInfo;

namespace {

// A 3-byte-a-pixel frame with distinct bytes: all it needs, or as many as given.
template <typename Frame = FrameInfo> Frame frame(int width, int height, const char *kind, long bytes = -1) {
    Frame f;
    f.width = width;
    f.height = height;
    f.size = width * height * 3;
    f.compression = std::string("com.vision.models.COMPRESSION_KIND_") + kind;
    for (long i = 0; i < (bytes < 0 ? static_cast<long>(f.size) : bytes); ++i)
        f.data.push_back(static_cast<unsigned char>(i * 7 + 1));
    return f;
}

std::vector<unsigned char> bytesOf(const cv::Mat &m) { return {m.data, m.data + m.total() * m.elemSize()}; }

} // namespace

// Each frame goes into an image that starts as one grey pixel.
TEST(RecordsToMat, PayloadsBecomeTheImageOrAreRefused) {
    FrameInfo jpg = frame(100, 100, "JPG", 0);
    ASSERT_TRUE(cv::imencode(".jpg", cv::Mat(8, 16, CV_8UC3, cv::Scalar(40, 120, 200)), jpg.data));
    FrameInfo oversized = frame(2, 2, "GST_ENCODED", 1000);
    oversized.size = 1000;
    const struct {
        FrameInfo frame;
        bool throws;
        cv::Size size;
        bool reported;
    } rows[] = {
        {frame(5, 3, "NONE"), false, {5, 3}, false},
        {frame(5, 3, "GST_ENCODED"), false, {5, 3}, false}, // already pixels
        {frame(0, 2, "NONE", 6), false, {1, 1}, false},
        {frame(4, 0, "NONE", 6), false, {1, 1}, false},
        {frame(4, 2, "NONE", 0), false, {1, 1}, false},
        {jpg, false, {16, 8}, false}, // at its own size
        {frame(4, 2, "JPG", 4), false, {0, 0}, false},
        {frame(4, 2, "PNG"), false, {4, 2}, true},
        {frame(4, 4, "NONE", 47), true, {4, 4}, false},
        {frame(4, 4, "GST_ENCODED", 10), true, {4, 4}, false},
        // A size beyond the picture comes from a broken peer: refused, not copied past the image.
        {oversized, true, {2, 2}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.frame.compression + " " + std::to_string(row.frame.data.size()) + " bytes");
        cv::Mat out(1, 1, CV_8UC3, cv::Scalar(77, 77, 77));
        testing::internal::CaptureStderr();
        if (row.throws)
            EXPECT_THROW(row.frame.ToMat(out), std::out_of_range);
        else
            row.frame.ToMat(out);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  row.reported ? "Unsupport image format: " + row.frame.compression + "\n" : "");
        EXPECT_EQ(out.size(), row.size);
        if (!out.empty()) EXPECT_EQ(out.type(), CV_8UC3);
        if (row.size.area() == 1) EXPECT_EQ(out.at<cv::Vec3b>(0, 0), cv::Vec3b(77, 77, 77));
        if (row.size.area() == 15) EXPECT_EQ(bytesOf(out), row.frame.data);
        for (int c = 0; c < 3 && row.size.area() == 128; ++c)
            EXPECT_NEAR(out.at<cv::Vec3b>(4, 8)[c], cv::Vec3b(40, 120, 200)[c], 4);
    }
    // The combined record's frames go the same way, into an image of the right size where there is one.
    const auto uni = frame<TOLVIXO::IXO_VideoFrameData>(5, 3, "NONE");
    cv::Mat out(3, 5, CV_8UC3);
    const unsigned char *before = out.data;
    uni.ToMat(out);
    EXPECT_EQ(out.data, before);
    EXPECT_EQ(bytesOf(out), uni.data);
}

// The stamp the sink gives frames without one: local time despite the name, as
// the digits YYYYMMDDhhmmssmmm.
TEST(RecordsTime, StampsShowTheLocalTimeNow) {
    const auto local = [](std::time_t t) {
        std::tm fields{};
        localtime_r(&t, &fields);
        char text[32];
        return std::string(text, std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &fields));
    };
    // std::time reads a coarse clock that can still show the last second for a few ms.
    const auto now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
    const std::time_t before = now();
    const std::string digits = std::to_string(FrameInfo::GetDigitUTCTime());
    const std::time_t after = now();
    EXPECT_TRUE(std::regex_match(digits, std::regex("(" + local(before) + "|" + local(after) + ")[0-9]{3}"))) << digits;
}
