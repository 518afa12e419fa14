#pragma once
// Record builders and a capture of the worker's GLib trace lines, shared by the
// receiver tests.

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <glib.h>

#include "receiver.h"

namespace receivertest {

// A raw frame of width x height pixels whose bytes count up from 1.
TOLVIXO::FrameInfo makeFrame(std::uint32_t frameId, std::uint32_t width = 2, std::uint32_t height = 2,
                             const std::string &format = "com.vision.models.PIXEL_FORMAT_BGR8");

TOLVIXO::Information<TOLVIXO::ClassificationData> makeClassification(std::uint32_t frameId, int results = 1);
TOLVIXO::Information<TOLVIXO::DetectionBoxData> makeDetection(std::uint32_t frameId);
TOLVIXO::SegmentInfo makeSegment(std::uint32_t frameId);
TOLVIXO::DeviceInfo makeDevice(const std::string &devId);

// The frame ids of a queue's records, front first.
template <typename Record> std::vector<std::uint32_t> ids(const std::vector<Record> &queue) {
    std::vector<std::uint32_t> out;
    for (const auto &r : queue)
        out.push_back(r.frame_id);
    return out;
}

// Polls cond until it holds; the deadline only keeps a broken build from hanging.
bool eventually(const std::function<bool()> &cond);

// Collects the message-level lines of the default log domain while alive. Lines
// logged while several captures are alive reach each of them.
class MessageCapture {
  public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture &) = delete;
    MessageCapture &operator=(const MessageCapture &) = delete;

    std::vector<std::string> lines() const;
    bool contains(const std::string &line) const;

  private:
    static void handle(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer self);

    std::vector<std::string> lines_; // guarded by the process-wide capture lock
};

} // namespace receivertest
