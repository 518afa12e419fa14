#pragma once
// Owns one gst_video_frame_map so every exit path unmaps exactly once.

#include <gst/video/video.h>

namespace qxanalytics {

class MappedFrame {
  public:
    MappedFrame(const GstVideoInfo *info, GstBuffer *buffer, GstMapFlags flags)
        : mapped_(gst_video_frame_map(&frame_, const_cast<GstVideoInfo *>(info), buffer, flags) == TRUE) {}
    ~MappedFrame() { unmap(); }
    MappedFrame(const MappedFrame &) = delete;
    MappedFrame &operator=(const MappedFrame &) = delete;

    bool ok() const { return mapped_; }
    GstVideoFrame &frame() { return frame_; }
    void unmap() {
        if (mapped_) gst_video_frame_unmap(&frame_);
        mapped_ = false;
    }

  private:
    GstVideoFrame frame_{};
    bool mapped_;
};

} // namespace qxanalytics
