#include "receiver.h"

#include "record_copy.h"

#include <chrono>
#include <iostream>
#include <string>

#include <glib.h>
#include <opencv2/imgproc.hpp>

std::mutex m;

namespace {

const char *const kBgr8Format = "com.vision.models.PIXEL_FORMAT_BGR8";

// The frame picture in R,G,B order, as the source element converts from it.
// Decoded into a local matrix so that a payload that fails half-way leaves the
// receiver's picture as it was.
template <typename Frame> cv::Mat decodeRgb(const Frame &frame) {
    cv::Mat picture;
    frame.ToMat(picture);
    if (frame.format == kBgr8Format && !picture.empty()) cv::cvtColor(picture, picture, cv::COLOR_BGR2RGB);
    return picture;
}

template <typename Frame> bool hasPicture(const Frame &frame) {
    return !frame.data.empty() && frame.width != 0 && frame.height != 0;
}

// Walks one result queue for the frame syncID. The index k is read while the
// front element is removed at every step, and on a match it is the front that
// goes, not the element at k. That walking order is a settled property of the
// synchroniser and is kept as it is on purpose.
// Returns true when a result with the same id was copied into found.
template <typename Record>
bool searchResult(std::vector<Record> &queue, std::uint32_t syncID, Record &found, bool trace, const char *countLine,
                  const char *startLine, const char *pairLine, const char *endLine, const char *matchCountLine) {
    const auto available = queue.size();
    if (trace) g_message(countLine, static_cast<int>(available));
    if (available < 1) return false;
    if (trace) g_message("%s", startLine);
    bool matched = false;
    std::size_t k = 0;
    do {
        const Record &candidate = queue.at(k);
        if (trace) g_message(pairLine, static_cast<int>(candidate.frame_id), static_cast<int>(syncID));
        if (candidate.frame_id == syncID) {
            if (trace && matchCountLine != nullptr)
                g_message(matchCountLine, static_cast<int>(k), static_cast<int>(candidate.data.size()));
            found = candidate;
            queue.erase(queue.begin());
            matched = true;
            break;
        }
        if (candidate.frame_id > syncID) break; // belongs to a later frame: stays queued
        queue.erase(queue.begin());
        ++k;
    } while (k < queue.size());
    if (trace) g_message("%s", endLine);
    return matched;
}

void sleepFor(std::chrono::milliseconds duration) {
    // sleep_for resumes after a signal for the time left.
    std::this_thread::sleep_for(duration);
}

} // namespace

int poolingData::DropSynchronizedVec(int limit) {
    if (limit < 1) return 0;
    const auto size = synchronizedVec.size();
    if (size <= static_cast<std::size_t>(limit)) return 0;
    const auto excess = size - static_cast<std::size_t>(limit);
    synchronizedVec.erase(synchronizedVec.begin(), synchronizedVec.begin() + static_cast<std::ptrdiff_t>(excess));
    return static_cast<int>(excess);
}

Synchronizer::Synchronizer() : control_(std::make_shared<WorkerControl>()) {}

Synchronizer::~Synchronizer() {
    // Workers are detached, never joined: a worker may be in the middle of its
    // sleep and the element must not wait for it. Stop() makes it end at its
    // next check; marking the owner gone under m makes sure that a worker which
    // passed that check just before Stop() does not start another pass on this
    // object once it is freed. The worker keeps the control block alive itself.
    Stop();
    {
        std::lock_guard<std::mutex> lock(m);
        control_->ownerAlive = false;
        for (auto &retired : retired_)
            retired->ownerAlive = false;
    }
    for (auto &worker : workers_) {
        if (worker.joinable()) worker.detach();
    }
}

void Synchronizer::Start() {
    if (!workers_.empty()) {
        // A worker ran before: retire its flags (it ends at its next check)
        // and give the new worker flags of its own. Under m, as the worker
        // reads the current flags during its pass.
        std::lock_guard<std::mutex> lock(m);
        control_->running = false;
        retired_.push_back(control_);
        auto fresh = std::make_shared<WorkerControl>();
        fresh->workerMessage = control_->workerMessage.load();
        control_ = std::move(fresh);
    }
    control_->running = true;
    // The worker gets its own hold on the control block from here, not from the
    // object: it may first run after the object is gone.
    workers_.emplace_back(&Synchronizer::workerLoop, this, control_);
}

void Synchronizer::Stop() { control_->running = false; }

void Synchronizer::Clear() {
    std::lock_guard<std::mutex> lock(m);
    syncPool = poolingData{};
}

void Synchronizer::SetWorkerMessageFlag(bool flag) { control_->workerMessage = flag; }

bool Synchronizer::GetWorkerMessageFlag() const { return control_->workerMessage; }

void Synchronizer::pushFrameInfo(const TOLVIXO::FrameInfo &frameInfo) {
    std::lock_guard<std::mutex> lock(m);
    syncPool.frameInfoVec.push_back(frameInfo);
}

void Synchronizer::pushDeviceInfo(const TOLVIXO::DeviceInfo &deviceInfo) {
    std::lock_guard<std::mutex> lock(m);
    syncPool.deviceInfoVec.push_back(deviceInfo);
}

void Synchronizer::pushClassification(const TOLVIXO::Information<TOLVIXO::ClassificationData> &classification) {
    std::lock_guard<std::mutex> lock(m);
    syncPool.classificationVec.push_back(classification);
}

void Synchronizer::pushDetectionBox(const TOLVIXO::Information<TOLVIXO::DetectionBoxData> &detectionBox) {
    std::lock_guard<std::mutex> lock(m);
    syncPool.detectionBoxVec.push_back(detectionBox);
}

void Synchronizer::pushSegmentInfo(const TOLVIXO::SegmentInfo &segmentInfo) {
    std::lock_guard<std::mutex> lock(m);
    syncPool.segmentInfoVec.push_back(segmentInfo);
}

void Synchronizer::sync_work() { workerLoop(control_); }

void Synchronizer::workerLoop(std::shared_ptr<WorkerControl> control) {
    if (!control->running) {
        g_message("break sync while.");
        return;
    }
    SyncCursor cursor;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m);
            if (!control->ownerAlive) {
                // Stopped by the destructor after the check below had passed.
                g_message("break sync while.");
                return;
            }
            syncPass(cursor);
        }
        // The only time the worker is without m; polling, no condition variable.
        sleepFor(std::chrono::milliseconds(10));
        if (!control->running) {
            g_message("break sync while.");
            return;
        }
    }
}

void Synchronizer::syncPass(SyncCursor &cursor) {
    auto &pool = syncPool;
    const auto queuedFrames = pool.frameInfoVec.size();
    if (queuedFrames == 0) return;
    bool trace = control_->workerMessage;
    if (trace) {
        g_message("************");
        g_message("in sync_work(), frameInfoVec.size() = %d", static_cast<int>(queuedFrames));
        g_message("in sync_work(), syncPool.synchronizedVec.size() = %d",
                  static_cast<int>(pool.synchronizedVec.size()));
        g_message("************");
    }

    // The pass reads index i while published frames are removed from the front,
    // so it handles about half of the queued frames and drops some unread; the
    // rest wait for later passes. Kept deliberately: it is how the worker
    // catches up with a backlog.
    std::size_t i = 0;
    std::size_t remaining = queuedFrames;
    do {
        trace = control_->workerMessage;
        SynchronizedData entry;
        entry.frameInfo = pool.frameInfoVec.at(i);
        const std::uint32_t syncID = entry.frameInfo.frame_id;
        if (trace) g_message("syncID = %d", static_cast<int>(syncID));

        if (syncID < cursor.lastSyncID) {
            // Frame ids going backwards: the sender restarted. Its old results
            // and devices can never match again. Segmentation results are left
            // alone; they are matched (and passed over) by id like the others.
            pool.classificationVec.clear();
            pool.detectionBoxVec.clear();
            pool.deviceInfoVec.clear();
            std::cout << "clear all queued data from marlet" << std::endl;
            cursor.lastSyncID = 0;
            ++i;
            continue;
        }
        cursor.lastSyncID = syncID;

        bool matched = false;
        matched |=
            searchResult(pool.classificationVec, syncID, entry.classification, trace, "classification_n = %d",
                         "start search classification...", "(c_id, syncID) = (%d, %d)", "end search classification...",
                         "syncPool.classificationVec[%d]'s class_result number = %d");
        matched |=
            searchResult(pool.detectionBoxVec, syncID, entry.detectionBox, trace, "detection_n = %d",
                         "start search detection...", "(d_id, syncID) = (%d, %d)", "end search detection...", nullptr);
        matched |= searchResult(pool.segmentInfoVec, syncID, entry.segmentInfo, trace, "segment_n = %d",
                                "start search segmentation...", "(s_id, syncID) = (%d, %d)",
                                "end search segmentation...", nullptr);

        if (!pool.deviceInfoVec.empty()) {
            if (trace) g_message("Start get deviceInfoVec...");
            entry.deviceInfo = pool.deviceInfoVec.front();
            pool.deviceInfoVec.clear();
            if (trace) g_message("end get deviceInfoVec...");
        }

        if (matched) {
            cursor.unmatchedCount = 0;
        } else if (++cursor.unmatchedCount >= 10) {
            // A long run without results: hold this one frame back once, giving
            // late results a pass to arrive. Frames 1 to 9 of the run go out bare.
            cursor.unmatchedCount = 0;
            ++i;
            continue;
        }

        const int dropped = pool.DropSynchronizedVec(synchronizedLimit_);
        if (trace) std::cout << "[Drop Data] Dropped " << dropped << " synchronizedData." << std::endl;
        pool.synchronizedVec.push_back(entry);
        if (trace) {
            std::cout << "(frame id, device id, classification id, detectionbox id, segment id)= ("
                      << entry.frameInfo.frame_id << ", " << entry.deviceInfo.dev_id << ", "
                      << entry.classification.frame_id << ", " << entry.detectionBox.frame_id << ", "
                      << entry.segmentInfo.frame_id << ")" << std::endl;
        }

        pool.frameInfoVec.erase(pool.frameInfoVec.begin());
        --remaining;
        if (trace) g_message("Rest frame number in this sync time = %d", static_cast<int>(remaining));

        // Still holding m: paces the output to the consumer, which polls every millisecond.
        sleepFor(std::chrono::milliseconds(1));
        ++i;
    } while (remaining > i);
}

void ReceiveImage::callback(const TOLVIXO::FrameInfo &frameInfo) {
    if (!hasPicture(frameInfo)) return;
    cv::Mat picture = decodeRgb(frameInfo);
    {
        // The source element reads the picture's size from another thread.
        std::lock_guard<std::mutex> lock(m);
        image = picture;
        if (width != image.cols) width = image.cols;
        if (height != image.rows) height = image.rows;
    }
    synchronizer.pushFrameInfo(frameInfo);
}

void ReceiveImage::callback(const TOLVIXO::DeviceInfo &deviceInfo) { synchronizer.pushDeviceInfo(deviceInfo); }

void ReceiveImage::callback(const TOLVIXO::Information<TOLVIXO::ClassificationData> &classification) {
    synchronizer.pushClassification(classification);
}

void ReceiveImage::callback(const TOLVIXO::Information<TOLVIXO::DetectionBoxData> &detectionBox) {
    synchronizer.pushDetectionBox(detectionBox);
}

void ReceiveImage::callback(const TOLVIXO::SegmentInfo &segmentInfo) { synchronizer.pushSegmentInfo(segmentInfo); }

void ReceiveImage::callback(const TOLVIXO::UniInfo &uniInfo) {
    if (!uniMode) {
        // A combined record carries its own pairing: the worker is no longer
        // needed and the separate queues are left as they are from now on.
        synchronizer.Stop();
        uniMode = true;
    }
    if (uniInfo.videoList.empty() || !hasPicture(uniInfo.videoList.front())) return;

    cv::Mat picture = decodeRgb(uniInfo.videoList.front());
    SynchronizedData entry = parser(uniInfo);
    std::lock_guard<std::mutex> lock(m);
    image = picture;
    if (width != image.cols) width = image.cols;
    if (height != image.rows) height = image.rows;
    const int dropped = synchronizer.syncPool.DropSynchronizedVec(10);
    if (synchronizer.GetWorkerMessageFlag()) {
        std::cout << "[Drop Data] Dropped " << dropped
                  << " synchronizedData in ReceiveImage::callback(const UniInfo &uniInfo)." << std::endl;
    }
    synchronizer.syncPool.synchronizedVec.push_back(std::move(entry));
}

void ReceiveImage::receive(TOLVIXO::FrameInfo &&frameInfo, const PublisherKey &from) {
    if (pairing == nullptr) return callback(frameInfo);
    if (!hasPicture(frameInfo)) return;
    {
        // The element negotiates the size of the first frame.
        std::lock_guard<std::mutex> lock(m);
        width = static_cast<int>(frameInfo.width);
        height = static_cast<int>(frameInfo.height);
    }
    pairing->push(from, std::move(frameInfo));
}

template <typename Record> void ReceiveImage::receiveResult(Record &&record, const PublisherKey &from) {
    if (pairing == nullptr) return callback(record);
    pairing->push(from, std::move(record));
}

void ReceiveImage::receive(TOLVIXO::DeviceInfo &&deviceInfo, const PublisherKey &from) {
    receiveResult(std::move(deviceInfo), from);
}

void ReceiveImage::receive(TOLVIXO::Information<TOLVIXO::ClassificationData> &&classification,
                           const PublisherKey &from) {
    receiveResult(std::move(classification), from);
}

void ReceiveImage::receive(TOLVIXO::Information<TOLVIXO::DetectionBoxData> &&detectionBox, const PublisherKey &from) {
    receiveResult(std::move(detectionBox), from);
}

void ReceiveImage::receive(TOLVIXO::SegmentInfo &&segmentInfo, const PublisherKey &from) {
    receiveResult(std::move(segmentInfo), from);
}

void ReceiveImage::receive(TOLVIXO::UniInfo &&uniInfo, const PublisherKey &) { callback(uniInfo); }

void ReceiveImage::reset() {
    synchronizer.Clear();
    std::lock_guard<std::mutex> lock(m);
    image.release();
    width = 0;
    height = 0;
}

SynchronizedData ReceiveImage::parser(const TOLVIXO::UniInfo &uniInfo) {
    SynchronizedData entry;
    if (uniInfo.videoList.empty()) return entry;
    const TOLVIXO::IXO_VideoFrameData &video = uniInfo.videoList.front();

    TOLVIXO::FrameInfo &frame = entry.frameInfo;
    frame.stream_id = video.stream_id;
    frame.frame_id = video.frame_id;
    frame.timestamp = video.timestamp;
    frame.data = video.data;
    frame.width = video.width;
    frame.height = video.height;
    frame.channels = video.channels;
    frame.size = video.size;
    frame.format = video.format;
    frame.compression = video.compression;
    frame.framerate = video.framerate;

    // The combined record has no result headers of its own: the classification
    // header takes the frame's id and stream and the engine of its first class
    // result. Detection and segmentation headers stay empty; consumers take the
    // frame id from frameInfo.
    entry.classification.frame_id = video.frame_id;
    if (!video.classificationResult.empty()) {
        entry.classification.engine_id = video.classificationResult.front().engine_id;
        entry.classification.stream_id = video.stream_id;
        for (const auto &result : video.classificationResult) {
            TOLVIXO::ClassificationData data;
            // Unsigned on the combined group, signed on the separate one.
            data.index = static_cast<std::int32_t>(result.index);
            data.output = result.output;
            data.label = result.label;
            data.probability = result.probability;
            entry.classification.data.push_back(std::move(data));
        }
    }

    for (const auto &box : video.detectionResult) {
        TOLVIXO::DetectionBoxData data;
        TOLVIXO::copyBoxFields(box, data);
        data.probability = box.probability;
        entry.detectionBox.data.push_back(std::move(data));
    }

    for (const auto &segment : video.segmentationResult) {
        TOLVIXO::SegmentationData data;
        data.id = segment.id;
        data.repeat = segment.repeat;
        data.width = segment.width;
        data.height = segment.height;
        data.size = segment.size;
        data.channels = segment.channels;
        data.color = segment.color;
        data.label = segment.label;
        data.probability = segment.probability;
        data.data = segment.data;
        entry.segmentInfo.data.push_back(std::move(data));
    }

    if (!uniInfo.deviceList.empty()) {
        TOLVIXO::copyDeviceFields(uniInfo.deviceList.front(), entry.deviceInfo);
    }
    return entry;
}
