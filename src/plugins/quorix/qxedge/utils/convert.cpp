#include "convert.h"

#include <cstring>

#include <opencv2/imgproc.hpp>

namespace {

// rows rows of rowBytes bytes, each at its own stride on both sides.
void copyRows(unsigned char *dst, int dstStride, const unsigned char *src, int srcStride, int rowBytes, int rows) {
    for (int row = 0; row < rows; ++row)
        std::memcpy(dst + row * dstStride, src + row * srcStride, rowBytes);
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

cv::Mat YUV420p2BGR888(int width, int height, const unsigned char *y, const unsigned char *u, const unsigned char *v,
                       int strideY, int strideCbCr) {
    const cv::Mat yuv = createYUVI420p(width, height, y, u, v, strideY, strideCbCr);
    cv::Mat bgr(height, width, CV_8UC3);
    cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_I420);
    return bgr;
}

cv::Mat YUVNV122BGR888(int width, int height, const unsigned char *y, const unsigned char *uv, int strideY,
                       int strideUV) {
    cv::Mat yuv(height + height / 2, width, CV_8UC1);
    unsigned char *dst = yuv.data;
    copyRows(dst, width, y, strideY, width, height);
    copyRows(dst + width * height, width, uv, strideUV, width, height / 2);
    cv::Mat bgr(height, width, CV_8UC3);
    cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_NV12);
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
