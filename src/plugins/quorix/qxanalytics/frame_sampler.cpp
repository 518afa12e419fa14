#include "frame_sampler.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace qxanalytics {
namespace {

cv::Mat planeMat(const GstVideoFrame &frame, guint plane, int type) {
    return cv::Mat(GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane), GST_VIDEO_FRAME_COMP_WIDTH(&frame, plane), type,
                   GST_VIDEO_FRAME_PLANE_DATA(&frame, plane),
                   static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane)));
}

// Area averaging when shrinking keeps thin objects visible; a frame already at working
// size is referenced, not copied.
cv::Mat shrink(const cv::Mat &source, cv::Size size) {
    if (source.size() == size) return source;
    cv::Mat small;
    cv::resize(source, small, size, 0, 0, cv::INTER_AREA);
    return small;
}

void samplePacked(const GstVideoFrame &frame, cv::Size size, int type, int toBgr, SampledPlanes &planes) {
    cv::Mat small = shrink(planeMat(frame, 0, type), size);
    if (toBgr >= 0) {
        cv::Mat bgr;
        cv::cvtColor(small, bgr, toBgr);
        small = bgr;
    }
    cv::Mat ycrcb;
    cv::cvtColor(small, ycrcb, cv::COLOR_BGR2YCrCb);
    cv::Mat channels[3];
    cv::split(ycrcb, channels);
    planes.luma = channels[0];
    planes.cr = channels[1];
    planes.cb = channels[2];
}

} // namespace

cv::Size workingSize(int frameWidth, int frameHeight, int analysisWidth) {
    const int width = std::max(1, std::min(analysisWidth, frameWidth));
    const int height =
        std::max(1, static_cast<int>(std::lround(static_cast<double>(width) * frameHeight / std::max(1, frameWidth))));
    return {width, height};
}

bool sampleFrame(const GstVideoFrame &frame, int analysisWidth, SampledPlanes &planes) {
    const cv::Size size = workingSize(GST_VIDEO_FRAME_WIDTH(&frame), GST_VIDEO_FRAME_HEIGHT(&frame), analysisWidth);
    switch (GST_VIDEO_FRAME_FORMAT(&frame)) {
    case GST_VIDEO_FORMAT_BGR:
        samplePacked(frame, size, CV_8UC3, -1, planes);
        return true;
    case GST_VIDEO_FORMAT_RGB:
        samplePacked(frame, size, CV_8UC3, cv::COLOR_RGB2BGR, planes);
        return true;
    case GST_VIDEO_FORMAT_BGRx:
        samplePacked(frame, size, CV_8UC4, cv::COLOR_BGRA2BGR, planes);
        return true;
    case GST_VIDEO_FORMAT_RGBx:
        samplePacked(frame, size, CV_8UC4, cv::COLOR_RGBA2BGR, planes);
        return true;
    case GST_VIDEO_FORMAT_I420:
        planes.luma = shrink(planeMat(frame, 0, CV_8UC1), size);
        planes.cb = shrink(planeMat(frame, 1, CV_8UC1), size);
        planes.cr = shrink(planeMat(frame, 2, CV_8UC1), size);
        return true;
    case GST_VIDEO_FORMAT_NV12: {
        planes.luma = shrink(planeMat(frame, 0, CV_8UC1), size);
        cv::Mat chroma[2];
        cv::split(shrink(planeMat(frame, 1, CV_8UC2), size), chroma);
        planes.cb = chroma[0];
        planes.cr = chroma[1];
        return true;
    }
    default:
        return false;
    }
}

} // namespace qxanalytics
