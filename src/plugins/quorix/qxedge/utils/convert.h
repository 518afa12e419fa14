#pragma once
// Pixel-format conversion between YUV 4:2:0 planes and 3-channel 8-bit
// images. Nothing is checked: callers guarantee that planes, strides and
// destination buffers cover width x height. Odd sizes are converted: the
// last column or row takes the chroma of its neighbour.

#include <opencv2/core.hpp>

// Packed I420 (Y, then U, then V, no padding) from strided planes, as one
// single-channel matrix of height + height/2 rows.
cv::Mat createYUVI420p(int width, int height, const unsigned char *y, const unsigned char *u, const unsigned char *v,
                       int strideY, int strideCbCr);

// B,G,R image from planar I420.
cv::Mat YUV420p2BGR888(int width, int height, const unsigned char *y, const unsigned char *u, const unsigned char *v,
                       int strideY, int strideCbCr);

// B,G,R image from semi-planar NV12.
cv::Mat YUVNV122BGR888(int width, int height, const unsigned char *y, const unsigned char *uv, int strideY,
                       int strideUV);

// The two above, into a height x width CV_8UC3 image given by the caller
// (for instance a header over a record's bytes), so that the picture is
// written once, where it is wanted.
void I420ToBgrInto(int width, int height, const unsigned char *y, const unsigned char *u, const unsigned char *v,
                   int strideY, int strideCbCr, cv::Mat &bgr);
void NV12ToBgrInto(int width, int height, const unsigned char *y, const unsigned char *uv, int strideY, int strideUV,
                   cv::Mat &bgr);

// Reads the image as R,G,B and writes I420 planes with the given strides.
void RGB8882YUVI420p(cv::Mat image, unsigned char *y, unsigned char *u, unsigned char *v, int &strideY,
                     int &strideCbCr);

// Reads the image as B,G,R and writes NV12; the chroma pairs are written as one
// packed run with no row stride.
void RGB8882YUVNV12(cv::Mat image, unsigned char *y, unsigned char *uv, int &strideY);

// Writes the image into the planes of a 4:2:0 video frame of any size, each
// plane at its own stride, the chroma planes (width+1)/2 x (height+1)/2 as
// video frames lay them out. The image is clipped to the frame. The channel
// order read is that of the two encoders above: R,G,B for I420, B,G,R for NV12.
void writeI420Frame(const cv::Mat &image, int frameWidth, int frameHeight, unsigned char *y, int strideY,
                    unsigned char *u, int strideU, unsigned char *v, int strideV);
void writeNV12Frame(const cv::Mat &image, int frameWidth, int frameHeight, unsigned char *y, int strideY,
                    unsigned char *uv, int strideUV);
