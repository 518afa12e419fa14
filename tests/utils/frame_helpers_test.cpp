// Frame payload to image, and the time stamps of frame records.

#include <cstdio>
#include <ctime>
#include <stdexcept>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "frame_information.h"
#include "uni_information.h"

using TOLVIXO::FrameInfo;
using TOLVIXO::IXO_VideoFrameData;

namespace {

const char *const kNone = "com.vision.models.COMPRESSION_KIND_NONE";
const char *const kGst = "com.vision.models.COMPRESSION_KIND_GST_ENCODED";
const char *const kJpg = "com.vision.models.COMPRESSION_KIND_JPG";

template <typename Frame> Frame rawFrame(int width, int height, const char *compression) {
    Frame f;
    f.width = width;
    f.height = height;
    f.channels = 3;
    f.size = width * height * 3;
    f.compression = compression;
    for (std::uint32_t i = 0; i < f.size; ++i)
        f.data.push_back(static_cast<unsigned char>(i * 7 + 1));
    return f;
}

std::vector<unsigned char> bytesOf(const cv::Mat &m) {
    std::vector<unsigned char> out;
    for (int r = 0; r < m.rows; ++r)
        out.insert(out.end(), m.ptr(r), m.ptr(r) + m.cols * m.elemSize());
    return out;
}

} // namespace

template <typename Frame> class RecordsToMat : public ::testing::Test {};
using FrameTypes = ::testing::Types<FrameInfo, IXO_VideoFrameData>;
TYPED_TEST_SUITE(RecordsToMat, FrameTypes);

TYPED_TEST(RecordsToMat, RawPayloadsBecomeTheImage) {
    for (const char *compression : {kNone, kGst}) {
        const auto f = rawFrame<TypeParam>(5, 3, compression);
        cv::Mat out;
        f.ToMat(out);
        ASSERT_EQ(out.rows, 3) << compression;
        ASSERT_EQ(out.cols, 5) << compression;
        EXPECT_EQ(out.type(), CV_8UC3) << compression;
        EXPECT_EQ(bytesOf(out), f.data) << compression;
    }
}

TYPED_TEST(RecordsToMat, NothingHappensWithoutPictureOrSize) {
    auto noWidth = rawFrame<TypeParam>(4, 2, kNone);
    noWidth.width = 0;
    auto noHeight = rawFrame<TypeParam>(4, 2, kNone);
    noHeight.height = 0;
    auto noData = rawFrame<TypeParam>(4, 2, kNone);
    noData.data.clear();
    for (const auto &f : {noWidth, noHeight, noData}) {
        cv::Mat out(1, 1, CV_8UC1, cv::Scalar(77));
        f.ToMat(out);
        ASSERT_EQ(out.rows, 1);
        EXPECT_EQ(out.at<unsigned char>(0, 0), 77);
    }
}

TYPED_TEST(RecordsToMat, JpegDecodesToItsOwnSize) {
    cv::Mat picture(8, 16, CV_8UC3, cv::Scalar(40, 120, 200));
    std::vector<unsigned char> jpeg;
    ASSERT_TRUE(cv::imencode(".jpg", picture, jpeg));
    TypeParam f;
    f.width = 100;
    f.height = 100;
    f.compression = kJpg;
    f.data = jpeg;
    cv::Mat out;
    f.ToMat(out);
    ASSERT_EQ(out.rows, 8);
    ASSERT_EQ(out.cols, 16);
    const cv::Vec3b px = out.at<cv::Vec3b>(4, 8);
    EXPECT_NEAR(px[0], 40, 4);
    EXPECT_NEAR(px[1], 120, 4);
    EXPECT_NEAR(px[2], 200, 4);

    f.data = {1, 2, 3, 4};
    f.ToMat(out);
    EXPECT_TRUE(out.empty()) << "a payload that is no JPEG leaves an empty image";
}

TYPED_TEST(RecordsToMat, UnsupportedCompressionIsReportedOnStandardError) {
    auto f = rawFrame<TypeParam>(4, 2, kNone);
    f.compression = "com.vision.models.COMPRESSION_KIND_PNG";
    cv::Mat out;
    testing::internal::CaptureStderr();
    f.ToMat(out);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "Unsupport image format: com.vision.models.COMPRESSION_KIND_PNG\n");
    EXPECT_EQ(out.rows, 2);
    EXPECT_EQ(out.cols, 4);
    EXPECT_EQ(out.type(), CV_8UC3);
}

TYPED_TEST(RecordsToMat, ShortOrOversizedPayloadsThrowOutOfRange) {
    auto shortRaw = rawFrame<TypeParam>(4, 4, kNone);
    shortRaw.data.resize(shortRaw.data.size() - 1);
    auto shortEncoded = rawFrame<TypeParam>(4, 4, kGst);
    shortEncoded.data.resize(10);
    // A size beyond the picture comes from a broken peer: refused, not copied past the image.
    auto oversized = rawFrame<TypeParam>(2, 2, kGst);
    oversized.data.resize(1000);
    oversized.size = 1000;
    for (const auto &f : {shortRaw, shortEncoded, oversized}) {
        cv::Mat out;
        EXPECT_THROW(f.ToMat(out), std::out_of_range) << f.compression << " " << f.data.size();
    }
    // The bytes that exist are in place before the throw.
    cv::Mat out;
    EXPECT_THROW(shortEncoded.ToMat(out), std::out_of_range);
    EXPECT_EQ(out.data[9], shortEncoded.data[9]);
}

TEST(RecordsToMat, ExistingImageOfTheRightSizeIsReused) {
    auto f = rawFrame<FrameInfo>(4, 2, kNone);
    cv::Mat out(2, 4, CV_8UC3, cv::Scalar(0, 0, 0));
    const unsigned char *before = out.data;
    f.ToMat(out);
    EXPECT_EQ(out.data, before);
    EXPECT_EQ(bytesOf(out), f.data);
}

TEST(RecordsTime, DigitUtcTimeIsTheLocalTimeAsSeventeenDigits) {
    const std::time_t before = std::time(nullptr);
    const std::uint64_t stamp = FrameInfo::GetDigitUTCTime();
    const std::time_t after = std::time(nullptr);
    const std::string digits = std::to_string(stamp);
    ASSERT_EQ(digits.size(), 17u) << digits;

    std::tm parsed{};
    parsed.tm_year = std::stoi(digits.substr(0, 4)) - 1900;
    parsed.tm_mon = std::stoi(digits.substr(4, 2)) - 1;
    parsed.tm_mday = std::stoi(digits.substr(6, 2));
    parsed.tm_hour = std::stoi(digits.substr(8, 2));
    parsed.tm_min = std::stoi(digits.substr(10, 2));
    parsed.tm_sec = std::stoi(digits.substr(12, 2));
    parsed.tm_isdst = -1;
    EXPECT_LT(std::stoi(digits.substr(14, 3)), 1000);
    // The fields read back as local time must fall between the two readings.
    const std::time_t when = std::mktime(&parsed);
    EXPECT_GE(when, before);
    EXPECT_LE(when, after);
}

TEST(RecordsTime, TextAndMillisecondClocksAgreeWithTheSystem) {
    const std::int64_t beforeMs = static_cast<std::int64_t>(std::time(nullptr)) * 1000;
    const std::int64_t ms = FrameInfo::GetDigitTimeSince1970();
    const std::int64_t afterMs = (static_cast<std::int64_t>(std::time(nullptr)) + 1) * 1000;
    EXPECT_GE(ms, beforeMs);
    EXPECT_LT(ms, afterMs);

    const std::time_t before = std::time(nullptr);
    const std::string text = FrameInfo::GetUTCTime();
    const std::time_t after = std::time(nullptr);
    std::tm parsed{};
    int millis = -1;
    ASSERT_EQ(std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d:%d", &parsed.tm_year, &parsed.tm_mon, &parsed.tm_mday,
                          &parsed.tm_hour, &parsed.tm_min, &parsed.tm_sec, &millis),
              7)
        << text;
    EXPECT_GE(millis, 0);
    EXPECT_LT(millis, 1000);
    // Milliseconds are not zero padded.
    const std::string tail = text.substr(text.rfind(':') + 1);
    EXPECT_EQ(tail, std::to_string(millis));
    parsed.tm_year -= 1900;
    parsed.tm_mon -= 1;
    parsed.tm_isdst = -1;
    const std::time_t when = std::mktime(&parsed);
    EXPECT_GE(when, before);
    EXPECT_LE(when, after);
}
