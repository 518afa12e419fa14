// Guards the pixel converters between 4:2:0 frames and B,G,R images: a wrong colour
// matrix or channel order, chroma from the wrong row or plane, padding read as
// picture, writes past a row's padding or the packed chroma run, and odd sizes
// (the caps allow any size from 1) that fail or lose their last row or column.

#include <algorithm>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "convert.h"

namespace {

// 4:2:0 subsampling of a smooth picture plus 8-bit rounding both ways stays
// well inside this (per channel, absolute).
constexpr double kRoundTripTolerance = 6;

// A smooth picture: four corners of different colours, blended in between.
cv::Mat smoothImage(int width, int height) {
    const cv::Mat corners = (cv::Mat_<cv::Vec3b>(2, 2) << cv::Vec3b(60, 50, 170), cv::Vec3b(100, 60, 150),
                             cv::Vec3b(70, 100, 140), cv::Vec3b(110, 110, 120));
    cv::Mat img;
    cv::resize(corners, img, cv::Size(width, height));
    return img;
}

} // namespace

// Planes lie one after the other in one buffer, each row at its stride, with
// guard bytes after the last plane; "packed" is a frame's usual layout with no
// padding at all. Decoding gives the whole picture and, on its even part,
// exactly OpenCV's picture of that part. The frame writers (or, on even sizes,
// the encoders, which write NV12 chroma as one run without stride) cover
// exactly the bytes of their layout, and the picture comes back.
TEST(RecordsConvert, FramesOfEveryLayoutConvertBothWays) {
    struct Case {
        bool nv12;
        int w;
        int h;
        bool packed;
        bool encoder;
    };
    const Case cases[] = {
        {false, 64, 48, false, false},   {false, 64, 48, true, false},   {true, 64, 48, false, false},
        {true, 64, 48, true, false},     {false, 64, 48, false, true},   {true, 64, 48, false, true},
        {false, 321, 241, false, false}, {true, 321, 241, false, false}, {false, 320, 241, false, false},
        {true, 321, 240, false, false},  {false, 1, 1, false, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.nv12 ? "NV12 " : "I420 ") + std::to_string(c.w) + "x" + std::to_string(c.h) +
                     (c.packed ? " packed" : "") + (c.encoder ? " encoder" : ""));
        const int w = c.w;
        const int h = c.h;
        const int cw = (w + 1) / 2;
        const int ch = (h + 1) / 2;
        const int strideY = w + (c.packed ? 0 : 7);
        const int strideC = (c.nv12 ? 2 * cw : cw) + (c.packed ? 0 : 5);
        const int lumaBytes = strideY * h;
        const int chromaPlane = strideC * ch;
        cv::Mat buffer(1, lumaBytes + 2 * chromaPlane + 64, CV_8UC1);
        cv::RNG(3).fill(buffer, cv::RNG::UNIFORM, 16, 240);
        unsigned char *y = buffer.data;
        unsigned char *u = y + lumaBytes;
        unsigned char *v = u + chromaPlane;
        const auto decode = [&](int chromaStride) {
            return c.nv12 ? YUVNV122BGR888(w, h, y, u, strideY, chromaStride)
                          : YUV420p2BGR888(w, h, y, u, v, strideY, chromaStride);
        };
        const cv::Mat bgr = decode(strideC);
        ASSERT_EQ(bgr.size(), cv::Size(w, h));
        const cv::Rect even(0, 0, w & ~1, h & ~1);
        if (!even.empty()) {
            // The even part, packed, as OpenCV takes it.
            cv::Mat packed(even.height * 3 / 2, even.width, CV_8UC1);
            unsigned char *out = packed.data;
            for (int r = 0; r < even.height; ++r, out += even.width)
                std::copy_n(y + r * strideY, even.width, out);
            const int chromaRow = c.nv12 ? even.width : even.width / 2;
            for (int r = 0; r < (c.nv12 ? 1 : 2) * even.height / 2; ++r, out += chromaRow)
                std::copy_n((r < even.height / 2 ? u + r * strideC : v + (r - even.height / 2) * strideC), chromaRow,
                            out);
            cv::Mat expected;
            cv::cvtColor(packed, expected, c.nv12 ? cv::COLOR_YUV2BGR_NV12 : cv::COLOR_YUV2BGR_I420);
            EXPECT_EQ(cv::norm(bgr(even), expected, cv::NORM_INF), 0);
            if (!c.nv12 && even.size() == bgr.size())
                EXPECT_EQ(cv::norm(createYUVI420p(w, h, y, u, v, strideY, strideC), packed, cv::NORM_INF), 0);
        }
        const cv::Mat source = smoothImage(w, h);
        const int chromaStride = c.encoder && c.nv12 ? w : strideC;
        const auto write = [&] {
            int sy = strideY;
            int sc = strideC;
            if (c.encoder && c.nv12) RGB8882YUVNV12(source, y, u, sy);
            if (c.encoder && !c.nv12) RGB8882YUVI420p(source, y, u, v, sy, sc);
            if (!c.encoder && c.nv12) writeNV12Frame(source, w, h, y, strideY, u, strideC);
            if (!c.encoder && !c.nv12) writeI420Frame(source, w, h, y, strideY, u, strideC, v, strideC);
        };
        // Written over two different fills: what the writer covers agrees, the rest keeps its fill.
        buffer.setTo(0x00);
        write();
        const cv::Mat first = buffer.clone();
        buffer.setTo(0xFF);
        write();
        for (int i = 0; i < lumaBytes + 2 * chromaPlane + 64; ++i) {
            const int j = (i - lumaBytes) % chromaPlane;
            const bool covered = i < lumaBytes ? i % strideY < w
                                               : i < lumaBytes + (c.nv12 ? 1 : 2) * chromaPlane &&
                                                     j / chromaStride < ch && j % chromaStride < (c.nv12 ? 2 * cw : cw);
            ASSERT_EQ(first.data[i] == buffer.data[i], covered) << "byte " << i;
        }
        // The I420 writers read R,G,B, the NV12 ones B,G,R.
        cv::Mat expected = source;
        if (!c.nv12) cv::cvtColor(source, expected, cv::COLOR_RGB2BGR);
        if (!even.empty())
            EXPECT_LE(cv::norm(decode(chromaStride)(even), expected(even), cv::NORM_INF), kRoundTripTolerance);
    }
}
