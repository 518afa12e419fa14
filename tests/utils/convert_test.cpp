// Pixel converters: strided planes in, the same pictures OpenCV makes from
// packed input out; encoders round trip within a stated tolerance.

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "convert.h"

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr int kStrideY = kWidth + 16;
constexpr int kStrideC = kWidth / 2 + 24;
// 4:2:0 subsampling of a smooth picture plus 8-bit rounding in both
// directions stays well inside this (per channel, absolute).
constexpr double kRoundTripTolerance = 6;

// A smooth 3-channel picture: gradients in both directions.
cv::Mat smoothImage() {
    cv::Mat img(kHeight, kWidth, CV_8UC3);
    for (int r = 0; r < kHeight; ++r)
        for (int c = 0; c < kWidth; ++c)
            img.at<cv::Vec3b>(r, c) =
                cv::Vec3b(static_cast<unsigned char>(40 + 2 * c), static_cast<unsigned char>(30 + 3 * r),
                          static_cast<unsigned char>(200 - c - r));
    return img;
}

// Packed I420 with noisy content, as a single matrix (Y, U, V).
cv::Mat packedI420() {
    cv::Mat yuv(kHeight + kHeight / 2, kWidth, CV_8UC1);
    cv::RNG rng(7);
    rng.fill(yuv, cv::RNG::UNIFORM, 16, 240);
    return yuv;
}

std::vector<unsigned char> spread(const unsigned char *src, int rows, int cols, int stride, unsigned char filler) {
    std::vector<unsigned char> out(static_cast<std::size_t>(rows) * stride, filler);
    for (int r = 0; r < rows; ++r)
        std::copy(src + r * cols, src + (r + 1) * cols, out.begin() + r * stride);
    return out;
}

double maxDiff(const cv::Mat &a, const cv::Mat &b) { return cv::norm(a, b, cv::NORM_INF); }

} // namespace

TEST(RecordsConvert, I420PlanesWithStridesGiveOpenCvsPicture) {
    const cv::Mat packed = packedI420();
    const unsigned char *y = packed.data;
    const unsigned char *u = y + kWidth * kHeight;
    const unsigned char *v = u + (kWidth / 2) * (kHeight / 2);
    const auto ys = spread(y, kHeight, kWidth, kStrideY, 0);
    const auto us = spread(u, kHeight / 2, kWidth / 2, kStrideC, 0);
    const auto vs = spread(v, kHeight / 2, kWidth / 2, kStrideC, 255);

    const cv::Mat rebuilt = createYUVI420p(kWidth, kHeight, ys.data(), us.data(), vs.data(), kStrideY, kStrideC);
    ASSERT_EQ(rebuilt.rows, kHeight + kHeight / 2);
    EXPECT_EQ(maxDiff(rebuilt, packed), 0);

    cv::Mat expected;
    cv::cvtColor(packed, expected, cv::COLOR_YUV2BGR_I420);
    const cv::Mat bgr = YUV420p2BGR888(kWidth, kHeight, ys.data(), us.data(), vs.data(), kStrideY, kStrideC);
    ASSERT_EQ(bgr.type(), CV_8UC3);
    ASSERT_EQ(bgr.size(), cv::Size(kWidth, kHeight));
    EXPECT_EQ(maxDiff(bgr, expected), 0);
}

TEST(RecordsConvert, Nv12PlanesWithStridesGiveOpenCvsPicture) {
    cv::Mat packed = packedI420(); // reused as Y plus interleaved UV: same size
    const unsigned char *y = packed.data;
    const unsigned char *uv = y + kWidth * kHeight;
    const auto ys = spread(y, kHeight, kWidth, kStrideY, 0);
    const int strideUV = kWidth + 8;
    const auto uvs = spread(uv, kHeight / 2, kWidth, strideUV, 0);

    cv::Mat expected;
    cv::cvtColor(packed, expected, cv::COLOR_YUV2BGR_NV12);
    const cv::Mat bgr = YUVNV122BGR888(kWidth, kHeight, ys.data(), uvs.data(), kStrideY, strideUV);
    ASSERT_EQ(bgr.size(), cv::Size(kWidth, kHeight));
    EXPECT_EQ(maxDiff(bgr, expected), 0);
}

TEST(RecordsConvert, I420EncoderReadsRgbAndRoundTrips) {
    const cv::Mat rgb = smoothImage();
    std::vector<unsigned char> y(kHeight * kStrideY), u(kHeight / 2 * kStrideC), v(kHeight / 2 * kStrideC);
    int strideY = kStrideY;
    int strideC = kStrideC;
    RGB8882YUVI420p(rgb, y.data(), u.data(), v.data(), strideY, strideC);

    const cv::Mat back = YUV420p2BGR888(kWidth, kHeight, y.data(), u.data(), v.data(), kStrideY, kStrideC);
    cv::Mat backRgb;
    cv::cvtColor(back, backRgb, cv::COLOR_BGR2RGB);
    EXPECT_LE(maxDiff(backRgb, rgb), kRoundTripTolerance);

    // First channel taken as red: a picture that is 255 there has high Cr.
    const cv::Mat red(kHeight, kWidth, CV_8UC3, cv::Scalar(255, 0, 0));
    RGB8882YUVI420p(red, y.data(), u.data(), v.data(), strideY, strideC);
    EXPECT_GT(v[0], 200);
    EXPECT_LT(u[0], 128);
}

TEST(RecordsConvert, Nv12EncoderReadsBgrAndPacksChromaWithoutStride) {
    const cv::Mat bgr = smoothImage();
    const std::size_t chromaBytes = static_cast<std::size_t>(kWidth) * (kHeight / 2);
    std::vector<unsigned char> y(kHeight * kStrideY, 0);
    std::vector<unsigned char> uv(chromaBytes + 64, 0xAB); // guard bytes after the packed run
    int strideY = kStrideY;
    RGB8882YUVNV12(bgr, y.data(), uv.data(), strideY);
    for (std::size_t i = chromaBytes; i < uv.size(); ++i)
        ASSERT_EQ(uv[i], 0xAB) << "written past the packed run at " << i;

    const cv::Mat back = YUVNV122BGR888(kWidth, kHeight, y.data(), uv.data(), kStrideY, kWidth);
    EXPECT_LE(maxDiff(back, bgr), kRoundTripTolerance);

    // First channel taken as blue: Cb (the first of each pair) is high.
    const cv::Mat blue(kHeight, kWidth, CV_8UC3, cv::Scalar(255, 0, 0));
    RGB8882YUVNV12(blue, y.data(), uv.data(), strideY);
    EXPECT_GT(uv[0], 200);
    EXPECT_LT(uv[1], 128);
}

// Odd sizes (the caps allow any size from 1), with padded strides: decoding
// gives the whole picture and, on its even part, exactly OpenCV's picture of
// that part; the frame writers fill every plane of an odd frame as video
// frames lay it out ((w+1)/2 x (h+1)/2 chroma), never past a row's padding,
// and the picture comes back. Before, cvtColor threw on every odd size.
TEST(RecordsConvert, OddSizesConvertBothWays) {
    struct Case {
        bool nv12;
        int width;
        int height;
    };
    for (const Case c : {Case{false, 321, 241}, Case{true, 321, 241}, Case{false, 320, 241}, Case{true, 321, 240},
                         Case{false, 1, 1}}) {
        SCOPED_TRACE(std::string(c.nv12 ? "NV12 " : "I420 ") + std::to_string(c.width) + "x" +
                     std::to_string(c.height));
        const int cw = (c.width + 1) / 2;
        const int ch = (c.height + 1) / 2;
        const int strideY = c.width + 7;
        const int strideC = (c.nv12 ? 2 * cw : cw) + 5;
        cv::Mat planes(c.height + 2 * ch, std::max(strideY, 2 * strideC), CV_8UC1);
        cv::RNG(3).fill(planes, cv::RNG::UNIFORM, 16, 240);
        unsigned char *y = planes.ptr(0);
        unsigned char *u = planes.ptr(c.height);
        unsigned char *v = planes.ptr(c.height + ch);

        const cv::Mat bgr = c.nv12 ? YUVNV122BGR888(c.width, c.height, y, u, strideY, strideC)
                                   : YUV420p2BGR888(c.width, c.height, y, u, v, strideY, strideC);
        ASSERT_EQ(bgr.size(), cv::Size(c.width, c.height));
        const int ew = c.width & ~1;
        const int eh = c.height & ~1;
        if (ew > 0 && eh > 0) {
            cv::Mat even(eh + eh / 2, ew, CV_8UC1);
            for (int r = 0; r < eh; ++r)
                std::copy(y + r * strideY, y + r * strideY + ew, even.ptr(r));
            for (int r = 0; r < eh / 2; ++r) {
                if (c.nv12) {
                    std::copy(u + r * strideC, u + r * strideC + ew, even.ptr(eh + r));
                } else {
                    std::copy(u + r * strideC, u + r * strideC + ew / 2, even.ptr(eh) + r * (ew / 2));
                    std::copy(v + r * strideC, v + r * strideC + ew / 2, even.ptr(eh) + (eh / 2 + r) * (ew / 2));
                }
            }
            cv::Mat expected;
            cv::cvtColor(even, expected, c.nv12 ? cv::COLOR_YUV2BGR_NV12 : cv::COLOR_YUV2BGR_I420);
            EXPECT_EQ(maxDiff(bgr(cv::Rect(0, 0, ew, eh)), expected), 0);
        }

        // Back into a frame whose plane rows carry guard bytes after their padding.
        const cv::Mat picture = smoothImage()(cv::Rect(0, 0, std::min(c.width, kWidth), std::min(c.height, kHeight)));
        cv::Mat source;
        cv::resize(picture, source, cv::Size(c.width, c.height));
        // Written over two different fills: what the writer covers agrees, the rest keeps its fill.
        cv::Mat first;
        for (const unsigned char fill : {0x00, 0xFF}) {
            planes.setTo(fill);
            if (c.nv12)
                writeNV12Frame(source, c.width, c.height, y, strideY, u, strideC);
            else
                writeI420Frame(source, c.width, c.height, y, strideY, u, strideC, v, strideC);
            if (first.empty()) first = planes.clone();
        }
        const int chromaBytes = c.nv12 ? 2 * cw : cw;
        auto covered = [&](const unsigned char *row, int bytes, int stride) {
            const long at = row - planes.data;
            for (int i = 0; i < stride; ++i) {
                const bool same = first.data[at + i] == planes.data[at + i];
                if (same != (i < bytes)) return false;
            }
            return true;
        };
        for (int r = 0; r < c.height; ++r)
            ASSERT_TRUE(covered(y + r * strideY, c.width, strideY)) << "Y row " << r;
        for (int r = 0; r < ch; ++r) {
            ASSERT_TRUE(covered(u + r * strideC, chromaBytes, strideC)) << "chroma row " << r;
            if (!c.nv12) ASSERT_TRUE(covered(v + r * strideC, cw, strideC)) << "V row " << r;
        }
        const cv::Mat back = c.nv12 ? YUVNV122BGR888(c.width, c.height, y, u, strideY, strideC)
                                    : YUV420p2BGR888(c.width, c.height, y, u, v, strideY, strideC);
        cv::Mat expected = source;
        if (!c.nv12) cv::cvtColor(source, expected, cv::COLOR_RGB2BGR); // the I420 writer reads R,G,B
        if (ew > 0 && eh > 0)
            EXPECT_LE(maxDiff(back(cv::Rect(0, 0, ew, eh)), expected(cv::Rect(0, 0, ew, eh))), kRoundTripTolerance);
    }
}
