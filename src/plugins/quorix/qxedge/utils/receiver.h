#pragma once
// The subscriber's receiver and synchroniser. Reader threads hand every decoded
// record to ReceiveImage; a single worker thread pairs each queued frame with the
// results that carry the same frame id and appends the combination to a bounded
// output queue, which the source element drains from the front.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "frame_information.h"
#include "pairing.h"
#include "synchronized_data.h"
#include "uni_information.h"

// Guards the six queues of every Synchronizer::syncPool and the receiver's image
// matrix. Process-wide on purpose: the source element takes it too when it
// removes entries from synchronizedVec, so no queue is ever touched by two
// threads at once.
extern std::mutex m;

// The queues of one synchroniser; the front of each vector is the oldest entry.
// Every access goes through m.
class poolingData {
  public:
    std::vector<TOLVIXO::FrameInfo> frameInfoVec;
    std::vector<TOLVIXO::DeviceInfo> deviceInfoVec;
    std::vector<TOLVIXO::Information<TOLVIXO::ClassificationData>> classificationVec;
    std::vector<TOLVIXO::Information<TOLVIXO::DetectionBoxData>> detectionBoxVec;
    std::vector<TOLVIXO::SegmentInfo> segmentInfoVec;
    std::vector<SynchronizedData> synchronizedVec;

    // Drops the oldest entries of synchronizedVec until at most limit remain and
    // returns how many were dropped; a limit below 1 drops nothing. Caller holds m.
    int DropSynchronizedVec(int limit);
};

// What the worker remembers from one pass to the next; starts afresh with every
// worker.
struct SyncCursor {
    std::uint32_t lastSyncID = 0;
    int unmatchedCount = 0;
};

class Synchronizer {
  public:
    poolingData syncPool;

    Synchronizer();
    ~Synchronizer();
    Synchronizer(const Synchronizer &) = delete;
    Synchronizer &operator=(const Synchronizer &) = delete;

    // Sets the running flag and starts one more worker running sync_work().
    void Start();
    // Clears the running flag only; the worker notices at its next check.
    void Stop();
    // Empties every queue (under m), so that a restarted element starts from
    // what arrives after the restart.
    void Clear();
    void SetWorkerMessageFlag(bool flag);
    bool GetWorkerMessageFlag() const;

    // Each appends a copy at the back of its queue under m. Input queues are unbounded.
    void pushFrameInfo(const TOLVIXO::FrameInfo &frameInfo);
    void pushDeviceInfo(const TOLVIXO::DeviceInfo &deviceInfo);
    void pushClassification(const TOLVIXO::Information<TOLVIXO::ClassificationData> &classification);
    void pushDetectionBox(const TOLVIXO::Information<TOLVIXO::DetectionBoxData> &detectionBox);
    void pushSegmentInfo(const TOLVIXO::SegmentInfo &segmentInfo);

    // The worker loop: one pass under m, then 10 ms without it, until stopped.
    void sync_work();

    // One pass of the worker over the queued frames. Caller holds m.
    void syncPass(SyncCursor &cursor);

  private:
    // Flags the worker reads outside m. Shared with every worker so that a worker
    // still sleeping when this object is destroyed finds out without touching it.
    struct WorkerControl {
        std::atomic<bool> running{false};
        std::atomic<bool> workerMessage{false};
        bool ownerAlive = true; // guarded by m
    };

    // sync_work() itself; control is held by the worker for as long as it runs.
    void workerLoop(std::shared_ptr<WorkerControl> control);

    std::vector<std::thread> workers_;
    const int synchronizedLimit_ = 10;
    // The current worker's flags, and those of every worker started before it:
    // a stopped worker may still be sleeping when Start() runs again, and it
    // must see its own running flag stay false.
    std::shared_ptr<WorkerControl> control_;
    std::vector<std::shared_ptr<WorkerControl>> retired_;
};

class ReceiveImage {
  public:
    cv::Mat image;
    int width = 0;
    int height = 0;
    std::string contextId;
    Synchronizer synchronizer;
    bool uniMode = false;

    // Decodes the frame into image (RGB order) and queues the record as received.
    // Frames without bytes or without a size are ignored.
    void callback(const TOLVIXO::FrameInfo &frameInfo);
    void callback(const TOLVIXO::DeviceInfo &deviceInfo);
    void callback(const TOLVIXO::Information<TOLVIXO::ClassificationData> &classification);
    void callback(const TOLVIXO::Information<TOLVIXO::DetectionBoxData> &detectionBox);
    void callback(const TOLVIXO::SegmentInfo &segmentInfo);
    // Combined record: the first one stops the worker for good; each record with a
    // usable first frame becomes one entry of synchronizedVec directly.
    void callback(const TOLVIXO::UniInfo &uniInfo);

    // Forgets the last picture and every queued record: the element was
    // stopped, and what it delivers after a restart must arrive after it.
    void reset();

    // Frame-exact pairing. When set (by the element, which owns the engine),
    // the records of separate tag groups go to it, moved, with the publisher
    // that sent them, instead of the synchroniser; the picture is not decoded
    // here, only its size is kept. Without it, receive() is callback().
    // Combined records carry their own pairing and take callback() either way.
    PairingEngine *pairing = nullptr;
    void receive(TOLVIXO::FrameInfo &&frameInfo, const PublisherKey &from);
    void receive(TOLVIXO::DeviceInfo &&deviceInfo, const PublisherKey &from);
    void receive(TOLVIXO::Information<TOLVIXO::ClassificationData> &&classification, const PublisherKey &from);
    void receive(TOLVIXO::Information<TOLVIXO::DetectionBoxData> &&detectionBox, const PublisherKey &from);
    void receive(TOLVIXO::SegmentInfo &&segmentInfo, const PublisherKey &from);
    void receive(TOLVIXO::UniInfo &&uniInfo, const PublisherKey &from);

    // Splits a combined record into one entry, taken from its first frame and first device.
    static SynchronizedData parser(const TOLVIXO::UniInfo &uniInfo);

  private:
    template <typename Record> void receiveResult(Record &&record, const PublisherKey &from);
};
