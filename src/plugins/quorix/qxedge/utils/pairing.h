#pragma once
// The frame-exact pairing engine: the subscriber's second way of pairing frames
// with their results, for users who need every result on its own frame. The
// synchroniser in receiver.h stays the default; this engine sits beside it and
// fills the same SynchronizedData entries, so extraction reads both alike.
//
// Rules:
// - Publishers. Every record comes with the PublisherKey of the publisher and
//   flow that sent it. A frame is paired only with results that carry its
//   frame id and the same key; the device record a frame gets is the latest
//   one of its key, taken when the frame is released (the device record is not
//   per frame). With needDevice, a publisher's frames also wait, as for a
//   missing kind, until its first device record has come. At most maxPublishers keys are remembered: a record from a new
//   key beyond that forgets the least recently active one, dropping its waiting
//   frames and results (counted).
// - Release. A waiting frame is released once every needed kind has arrived
//   for it, or once resultWait has passed since its own arrival; then it goes
//   with what it has and counts as incomplete. Kinds that are not needed are
//   still paired when they come in time, but nothing waits for them.
// - Order. Each publisher's frames are released in frame-id order, each at most
//   once: a complete frame behind an incomplete one waits for it. Nothing is
//   repeated or skipped unless a bound is hit, where the oldest goes and is
//   counted: a publisher's waiting frames (maxFramesPerPublisher, lowest id
//   first), its results of one kind (maxResultsPerKind, earliest arrival first)
//   and the output queue of released entries (outputLimit, oldest first).
// - Results before their frame wait for it, at most resultTtl from their
//   arrival (then dropped and counted). A newer result of the same kind and
//   frame id replaces a waiting one; a second result for a frame that already
//   has that kind is dropped. When a frame arrives, waiting results for lower
//   ids of its run can no longer find a frame (frames of one publisher arrive
//   in order) and are dropped: that is how a late-joining subscriber sheds the
//   results of frames it never saw.
// - Late results. A result whose frame id is not above the highest frame id
//   seen in the publisher's run, and whose frame is not waiting, looks late. It
//   is held for resultWait from its arrival and counted late when that ends.
//   The hold exists because publishers send a frame's results before the frame:
//   after a restart the new run's first results arrive before its first frame,
//   while the ids still look old.
// - Restart. A frame id not above the highest one seen in the publisher's run
//   means the publisher started again (frames of one writer arrive in order, so
//   neither a backlog nor a late join ever looks like this). Only that
//   publisher's queues are touched: its waiting frames are released at once
//   with what they have, results that arrived before the previous run's last
//   frame are dropped, and results that arrived after it are kept for the new
//   run, but for no longer than resultWait from the restart. Records carry no
//   run of their own: arrival order is all that tells two runs apart.
// - Memory is bounded by the limits above; a limit of 0 counts as 1.
// - Threads. Any number of threads may push; one consumer pops. Records are
//   moved in and moved out, never copied, except the device record, which each
//   frame gets a copy of. pop() sleeps on a condition variable and wakes on a
//   released frame, on the end of the earliest waiting frame's resultWait, on
//   stop() or at its timeout.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "frame_information.h"
#include "synchronized_data.h"

// Who sent a record: the publishing session and the flow. Records of different
// keys are never paired with each other, so the session must name the publisher
// as a whole (the same for all of its tag groups, such as its source thing id),
// not the bus writer of one tag group.
struct PublisherKey {
    std::string session;
    std::string flow;

    bool operator<(const PublisherKey &other) const {
        return session < other.session || (session == other.session && flow < other.flow);
    }
};

struct PairingSettings {
    // The result kinds the subscriber reads; a frame waits only for these.
    bool needClassification = false;
    bool needDetection = false;
    bool needSegmentation = false;
    bool needDevice = false;
    // How long a frame waits for missing kinds, from its arrival; also how long
    // a late-looking result is held.
    std::chrono::milliseconds resultWait{100};
    // How long a result waits for its frame, from its arrival.
    std::chrono::milliseconds resultTtl{2000};
    std::size_t maxFramesPerPublisher = 32;
    std::size_t maxResultsPerKind = 256;
    std::size_t outputLimit = 10;
    std::size_t maxPublishers = 16;
};

// Running totals since construction or the last reset(), plus framesWaiting, a
// snapshot. Every frame pushed is delivered, dropped or still waiting:
// framesReceived == framesDelivered + framesDropped + framesWaiting.
struct PairingCounters {
    std::uint64_t framesReceived = 0;
    std::uint64_t framesDelivered = 0;  // taken by pop()
    std::uint64_t framesDropped = 0;    // lost to a bound or to a forgotten publisher
    std::uint64_t framesIncomplete = 0; // released without every needed kind
    std::uint64_t framesWaiting = 0;    // in the engine now, released or not
    std::uint64_t resultsMatched = 0;   // paired with their frame
    std::uint64_t resultsLate = 0;      // came after their frame was gone
    std::uint64_t resultsDropped = 0;   // no frame in time, a bound, a duplicate, a restart
    std::uint64_t restarts = 0;         // publishers seen starting their frame ids again
};

class PairingEngine {
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // An empty clock reads std::chrono::steady_clock. The clock is read under
    // the engine's lock, so it must not call back into the engine.
    explicit PairingEngine(PairingSettings settings, Clock clock = {});
    ~PairingEngine();
    PairingEngine(const PairingEngine &) = delete;
    PairingEngine &operator=(const PairingEngine &) = delete;

    void push(const PublisherKey &key, TOLVIXO::FrameInfo &&frame);
    void push(const PublisherKey &key, TOLVIXO::DeviceInfo &&device);
    void push(const PublisherKey &key, TOLVIXO::Information<TOLVIXO::ClassificationData> &&result);
    void push(const PublisherKey &key, TOLVIXO::Information<TOLVIXO::DetectionBoxData> &&result);
    void push(const PublisherKey &key, TOLVIXO::SegmentInfo &&result);

    // Moves the oldest released entry into out and returns true. Without one,
    // waits until an entry is released, stop() is called or timeout has passed;
    // a timeout of 0 only looks at the clock once, which is how a fake clock is
    // driven. Returns false after stop() until reset(), even with entries left.
    bool pop(SynchronizedData &out, std::chrono::milliseconds timeout);

    // Wakes every waiting pop().
    void stop();
    // Forgets every publisher, entry and counter, and undoes stop().
    void reset();

    PairingCounters counters() const;

  private:
    struct State;

    // The three result overloads in one; defined and instantiated in pairing.cpp only.
    template <typename Result> void pushResult(const PublisherKey &key, Result &&result);

    const PairingSettings settings_;
    const Clock clock_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::unique_ptr<State> state_;
};
