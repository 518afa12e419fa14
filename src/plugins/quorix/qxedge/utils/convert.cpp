#include "convert.h"

#include <algorithm>
#include <cstring>

#include <opencv2/imgproc.hpp>

namespace {

// rows rows of rowBytes bytes, each at its own stride on both sides.
void copyRows(unsigned char *dst, int dstStride, const unsigned char *src, int srcStride, int rowBytes, int rows) {
    for (int row = 0; row < rows; ++row)
        std::memcpy(dst + row * dstStride, src + row * srcStride, rowBytes);
}

// OpenCV converts 4:2:0 pictures of even size only. An odd picture is
// converted as the next even size: its last column or row is repeated, and
// takes the chroma of its neighbour, as the chroma of an odd picture's last
// column or row is not read. A picture one pixel wide has no chroma column at
// all and comes out grey.
int evenUp(int value) { return value + (value & 1); }

// Copies rows of rowBytes bytes into rows of paddedBytes, repeating the last
// `unit` bytes of each row to fill it, then repeats the last row to fill rows.
void copyPadded(unsigned char *dst, int paddedBytes, int paddedRows, const unsigned char *src, int srcStride,
                int rowBytes, int rows, int unit, unsigned char fill) {
    for (int row = 0; row < paddedRows; ++row) {
        unsigned char *out = dst + row * paddedBytes;
        if (row >= rows || rowBytes == 0) {
            if (rows == 0 || rowBytes == 0)
                std::memset(out, fill, paddedBytes);
            else
                std::memcpy(out, dst + (rows - 1) * paddedBytes, paddedBytes);
            continue;
        }
        std::memcpy(out, src + row * srcStride, rowBytes);
        for (int at = rowBytes; at < paddedBytes; at += unit)
            std::memcpy(out + at, out + rowBytes - unit, unit);
    }
}

// The even-sized conversion of an odd picture, cut back to its own size.
cv::Mat convertPadded(const cv::Mat &yuv, int code, int width, int height) {
    cv::Mat bgr;
    cv::cvtColor(yuv, bgr, code);
    return bgr(cv::Rect(0, 0, width, height));
}

// An image clipped to the frame, grown to even size by repeating its last column and row.
cv::Mat evenRegion(const cv::Mat &image, int frameWidth, int frameHeight) {
    const int width = std::min(image.cols, frameWidth);
    const int height = std::min(image.rows, frameHeight);
    const cv::Mat region = image(cv::Rect(0, 0, width, height));
    if (((width | height) & 1) == 0) return region;
    cv::Mat even;
    cv::copyMakeBorder(region, even, 0, height & 1, 0, width & 1, cv::BORDER_REPLICATE);
    return even;
}

} // namespace

cv::Mat createYUVI420p(int width, int height, const unsigned char *y, const unsigned char *u, const unsigned char *v,
                       int strideY, int strideCbCr) {
    cv::Mat yuv(height + height / 2, width, CV_8UC1);
    unsigned char *dst = yuv.data;
    copyRows(dst, width, y, strideY, width, height);

    const int chromaWidth = width / 2;
    const int chromaRows = height / 2;
    unsigned char *uPlane = dst + width * height;
    unsigned char *vPlane = uPlane + chromaWidth * chromaRows;
    copyRows(uPlane, chromaWidth, u, strideCbCr, chromaWidth, chromaRows);
    copyRows(vPlane, chromaWidth, v, strideCbCr, chromaWidth, chromaRows);
    return yuv;
}

void I420ToBgrInto(int width, int height, const unsigned char *y, const unsigned char *u, const unsigned char *v,
                   int strideY, int strideCbCr, cv::Mat &bgr) {
    if ((width | height) & 1) {
        const int w = evenUp(width);
        const int h = evenUp(height);
        cv::Mat yuv(h + h / 2, w, CV_8UC1);
        unsigned char *dst = yuv.data;
        copyPadded(dst, w, h, y, strideY, width, height, 1, 128);
        unsigned char *uPlane = dst + w * h;
        unsigned char *vPlane = uPlane + (w / 2) * (h / 2);
        copyPadded(uPlane, w / 2, h / 2, u, strideCbCr, width / 2, height / 2, 1, 128);
        copyPadded(vPlane, w / 2, h / 2, v, strideCbCr, width / 2, height / 2, 1, 128);
        convertPadded(yuv, cv::COLOR_YUV2BGR_I420, width, height).copyTo(bgr);
        return;
    }
    // Planes that already lie one after the other without padding (a video
    // frame's usual layout) are converted where they are.
    const int chromaBytes = (width / 2) * (height / 2);
    const bool packed = strideY == width && strideCbCr == width / 2 && u == y + width * height && v == u + chromaBytes;
    const cv::Mat yuv = packed ? cv::Mat(height + height / 2, width, CV_8UC1, const_cast<unsigned char *>(y))
                               : createYUVI420p(width, height, y, u, v, strideY, strideCbCr);
    cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_I420);
}

void NV12ToBgrInto(int width, int height, const unsigned char *y, const unsigned char *uv, int strideY, int strideUV,
                   cv::Mat &bgr) {
    if ((width | height) & 1) {
        const int w = evenUp(width);
        const int h = evenUp(height);
        cv::Mat yuv(h + h / 2, w, CV_8UC1);
        copyPadded(yuv.data, w, h, y, strideY, width, height, 1, 128);
        // Whole U,V pairs only: an odd width's last pair is the one left out.
        copyPadded(yuv.data + w * h, w, h / 2, uv, strideUV, (width / 2) * 2, height / 2, 2, 128);
        convertPadded(yuv, cv::COLOR_YUV2BGR_NV12, width, height).copyTo(bgr);
        return;
    }
    const bool packed = strideY == width && strideUV == width && uv == y + width * height;
    cv::Mat yuv;
    if (packed) {
        yuv = cv::Mat(height + height / 2, width, CV_8UC1, const_cast<unsigned char *>(y));
    } else {
        yuv.create(height + height / 2, width, CV_8UC1);
        copyRows(yuv.data, width, y, strideY, width, height);
        copyRows(yuv.data + width * height, width, uv, strideUV, width, height / 2);
    }
    cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_NV12);
}

cv::Mat YUV420p2BGR888(int width, int height, const unsigned char *y, const unsigned char *u, const unsigned char *v,
                       int strideY, int strideCbCr) {
    cv::Mat bgr(height, width, CV_8UC3);
    I420ToBgrInto(width, height, y, u, v, strideY, strideCbCr, bgr);
    return bgr;
}

cv::Mat YUVNV122BGR888(int width, int height, const unsigned char *y, const unsigned char *uv, int strideY,
                       int strideUV) {
    cv::Mat bgr(height, width, CV_8UC3);
    NV12ToBgrInto(width, height, y, uv, strideY, strideUV, bgr);
    return bgr;
}

void RGB8882YUVI420p(cv::Mat image, unsigned char *y, unsigned char *u, unsigned char *v, int &strideY,
                     int &strideCbCr) {
    const int rows = image.rows;
    const int cols = image.cols;
    // The input is read as R,G,B here, unlike the NV12 encoder below; each
    // caller hands over the order it holds.
    cv::Mat yuv(rows + rows / 2, cols, CV_8UC1);
    cv::cvtColor(image, yuv, cv::COLOR_RGB2YUV_I420);
    const unsigned char *src = yuv.data;
    copyRows(y, strideY, src, cols, cols, rows);

    const int chromaWidth = cols / 2;
    const int chromaRows = rows / 2;
    const unsigned char *uPlane = src + rows * cols;
    const unsigned char *vPlane = uPlane + chromaWidth * chromaRows;
    copyRows(u, strideCbCr, uPlane, chromaWidth, chromaWidth, chromaRows);
    copyRows(v, strideCbCr, vPlane, chromaWidth, chromaWidth, chromaRows);
}

void RGB8882YUVNV12(cv::Mat image, unsigned char *y, unsigned char *uv, int &strideY) {
    const int rows = image.rows;
    const int cols = image.cols;
    // YV12 from B,G,R: the V plane comes first, then U.
    cv::Mat yuv(rows + rows / 2, cols, CV_8UC1);
    cv::cvtColor(image, yuv, cv::COLOR_BGR2YUV_YV12);
    const unsigned char *src = yuv.data;
    copyRows(y, strideY, src, cols, cols, rows);

    // The chroma pairs go out as one packed run with no row stride; the
    // source element sizes its buffers for exactly that.
    const std::size_t pairs = static_cast<std::size_t>(cols / 2) * (rows / 2);
    const unsigned char *vPlane = src + rows * cols;
    const unsigned char *uPlane = vPlane + pairs;
    for (std::size_t i = 0; i < pairs; ++i) {
        uv[2 * i] = uPlane[i];
        uv[2 * i + 1] = vPlane[i];
    }
}

namespace {

// Converts the part of the image that fits the frame (grown to even size)
// with code, writes its luma rows to y and returns the packed 4:2:0 result
// with the size of its chroma planes.
struct Planar {
    cv::Mat yuv;
    const unsigned char *chroma = nullptr;
    int chromaWidth = 0;
    int chromaRows = 0;
};

Planar convertIntoLuma(const cv::Mat &image, int frameWidth, int frameHeight, int code, unsigned char *y, int strideY) {
    Planar planar;
    const cv::Mat even = evenRegion(image, frameWidth, frameHeight);
    if (even.empty()) return planar;
    cv::cvtColor(even, planar.yuv, code);
    copyRows(y, strideY, planar.yuv.data, even.cols, std::min(image.cols, frameWidth),
             std::min(image.rows, frameHeight));
    planar.chroma = planar.yuv.data + even.cols * even.rows;
    planar.chromaWidth = even.cols / 2;
    planar.chromaRows = even.rows / 2;
    return planar;
}

} // namespace

void writeI420Frame(const cv::Mat &image, int frameWidth, int frameHeight, unsigned char *y, int strideY,
                    unsigned char *u, int strideU, unsigned char *v, int strideV) {
    // A frame of even size whose planes lie one after the other without
    // padding (the usual layout) is converted into where it is.
    const int chromaBytes = (frameWidth / 2) * (frameHeight / 2);
    if (((frameWidth | frameHeight) & 1) == 0 && image.cols == frameWidth && image.rows == frameHeight &&
        strideY == frameWidth && strideU == frameWidth / 2 && strideV == frameWidth / 2 &&
        u == y + frameWidth * frameHeight && v == u + chromaBytes) {
        cv::Mat planes(frameHeight + frameHeight / 2, frameWidth, CV_8UC1, y);
        cv::cvtColor(image, planes, cv::COLOR_RGB2YUV_I420);
        return;
    }
    const Planar p = convertIntoLuma(image, frameWidth, frameHeight, cv::COLOR_RGB2YUV_I420, y, strideY);
    if (p.chroma == nullptr) return;
    copyRows(u, strideU, p.chroma, p.chromaWidth, p.chromaWidth, p.chromaRows);
    copyRows(v, strideV, p.chroma + p.chromaWidth * p.chromaRows, p.chromaWidth, p.chromaWidth, p.chromaRows);
}

void writeNV12Frame(const cv::Mat &image, int frameWidth, int frameHeight, unsigned char *y, int strideY,
                    unsigned char *uv, int strideUV) {
    // YV12: the V plane comes first, then U.
    const Planar p = convertIntoLuma(image, frameWidth, frameHeight, cv::COLOR_BGR2YUV_YV12, y, strideY);
    if (p.chroma == nullptr) return;
    const unsigned char *vPlane = p.chroma;
    const unsigned char *uPlane = vPlane + p.chromaWidth * p.chromaRows;
    for (int row = 0; row < p.chromaRows; ++row) {
        unsigned char *out = uv + row * strideUV;
        for (int i = 0; i < p.chromaWidth; ++i) {
            out[2 * i] = uPlane[row * p.chromaWidth + i];
            out[2 * i + 1] = vPlane[row * p.chromaWidth + i];
        }
    }
}
