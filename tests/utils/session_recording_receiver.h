#pragma once
// A receiver for the session's reader threads that remembers what it was
// given. Readers call it concurrently, so everything is under one mutex, and
// tests wait on a condition instead of sleeping.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "frame_information.h"
#include "uni_information.h"

namespace session_test {

struct Received {
    // Full frames are large: only the first few are kept whole, but the
    // (stream id, frame id) of every frame is listed.
    std::vector<TOLVIXO::FrameInfo> frames;
    std::vector<std::pair<std::string, std::uint32_t>> frameKeys;
    std::vector<TOLVIXO::DeviceInfo> devices;
    std::vector<TOLVIXO::Information<TOLVIXO::ClassificationData>> classifications;
    std::vector<TOLVIXO::Information<TOLVIXO::DetectionBoxData>> detections;
    std::vector<TOLVIXO::SegmentInfo> segmentations;
    std::vector<TOLVIXO::UniInfo> unis;

    std::size_t framesFrom(const std::string &streamId) const {
        std::size_t n = 0;
        for (const auto &key : frameKeys)
            n += key.first == streamId ? 1 : 0;
        return n;
    }
    bool hasFrame(std::uint32_t frameId) const {
        for (const auto &key : frameKeys) {
            if (key.second == frameId) return true;
        }
        return false;
    }
    std::set<std::string> frameStreams() const {
        std::set<std::string> streams;
        for (const auto &key : frameKeys)
            streams.insert(key.first);
        return streams;
    }
};

class RecordingReceiver {
  public:
    static constexpr std::size_t kKeep = 3;

    void callback(const TOLVIXO::FrameInfo &frame) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (refused_.count(frame.frame_id) != 0) {
            throw std::runtime_error("receiver refused frame " + std::to_string(frame.frame_id));
        }
        if (got_.frames.size() < kKeep) got_.frames.push_back(frame);
        got_.frameKeys.emplace_back(frame.stream_id, frame.frame_id);
        changed_.notify_all();
    }
    void callback(const TOLVIXO::DeviceInfo &r) { keep(r, got_.devices); }
    void callback(const TOLVIXO::Information<TOLVIXO::ClassificationData> &r) { keep(r, got_.classifications); }
    void callback(const TOLVIXO::Information<TOLVIXO::DetectionBoxData> &r) { keep(r, got_.detections); }
    void callback(const TOLVIXO::SegmentInfo &r) { keep(r, got_.segmentations); }
    void callback(const TOLVIXO::UniInfo &r) { keep(r, got_.unis); }

    // Frames with this id make callback throw, as a failing consumer would.
    void refuseFrame(std::uint32_t frameId) {
        std::lock_guard<std::mutex> lock(mutex_);
        refused_.insert(frameId);
    }

    // Waits until done(received) holds; false if it still does not after the
    // guard, which only exists so that a broken build fails instead of hanging.
    bool waitUntil(const std::function<bool(const Received &)> &done,
                   std::chrono::seconds guard = std::chrono::seconds(60)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, guard, [&] { return done(got_); });
    }

    Received snapshot() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }

  private:
    template <typename R> void keep(const R &record, std::vector<R> &into) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (into.size() < kKeep) into.push_back(record);
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::uint32_t> refused_;
    Received got_;
};

} // namespace session_test
