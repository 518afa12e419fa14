#include "pairing.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

namespace {

using TimePoint = std::chrono::steady_clock::time_point;
using Classification = TOLVIXO::Information<TOLVIXO::ClassificationData>;
using Detection = TOLVIXO::Information<TOLVIXO::DetectionBoxData>;
using Segmentation = TOLVIXO::SegmentInfo;

// Where each result kind goes in an entry, and its place among a frame's flags.
template <typename Result> struct Kind;
template <> struct Kind<Classification> {
    static constexpr std::size_t index = 0;
    static Classification &slot(SynchronizedData &entry) { return entry.classification; }
};
template <> struct Kind<Detection> {
    static constexpr std::size_t index = 1;
    static Detection &slot(SynchronizedData &entry) { return entry.detectionBox; }
};
template <> struct Kind<Segmentation> {
    static constexpr std::size_t index = 2;
    static Segmentation &slot(SynchronizedData &entry) { return entry.segmentInfo; }
};

// A result waiting for its frame.
template <typename Result> struct Held {
    using Record = Result;
    Result record;
    TimePoint deadline;
    std::uint64_t arrival; // the engine's arrival number, which orders records of all kinds
    bool lateLooking;      // its frame id was not above the run's highest when it came
};

template <typename Result> using ResultQueue = std::map<std::uint32_t, Held<Result>>;

struct WaitingFrame {
    SynchronizedData entry;
    TimePoint deadline; // arrival + resultWait
    std::array<bool, 3> has{};
};

struct Publisher {
    std::deque<WaitingFrame> frames; // ascending frame ids: one run, in arrival order
    std::tuple<ResultQueue<Classification>, ResultQueue<Detection>, ResultQueue<Segmentation>> results;
    TOLVIXO::DeviceInfo device;
    bool hasDevice = false;
    bool running = false; // a frame of the current run has been seen
    std::uint32_t highest = 0;
    std::uint64_t lastFrameArrival = 0;
    std::uint64_t lastActive = 0;
};

template <typename Visit> void forEachQueue(Publisher &publisher, Visit &&visit) {
    std::apply([&](auto &...queue) { (visit(queue), ...); }, publisher.results);
}

PairingSettings clamped(PairingSettings settings) {
    for (std::size_t *limit :
         {&settings.maxFramesPerPublisher, &settings.maxResultsPerKind, &settings.outputLimit, &settings.maxPublishers})
        *limit = std::max<std::size_t>(*limit, 1);
    return settings;
}

} // namespace

// Everything the engine knows; every member function runs under the engine's lock.
struct PairingEngine::State {
    explicit State(const PairingSettings &settings) : settings(settings) {}

    const PairingSettings settings;
    std::map<PublisherKey, Publisher> publishers;
    std::deque<SynchronizedData> ready;
    PairingCounters counters;
    std::uint64_t arrivals = 0;
    std::uint64_t released = 0;
    bool stopped = false;

    Publisher &touch(const PublisherKey &key) {
        auto found = publishers.find(key);
        if (found == publishers.end()) {
            if (publishers.size() >= settings.maxPublishers) {
                auto quietest = std::min_element(publishers.begin(), publishers.end(), [](auto &a, auto &b) {
                    return a.second.lastActive < b.second.lastActive;
                });
                counters.framesDropped += quietest->second.frames.size();
                forEachQueue(quietest->second, [&](auto &queue) { counters.resultsDropped += queue.size(); });
                publishers.erase(quietest);
            }
            found = publishers.emplace(key, Publisher{}).first;
        }
        found->second.lastActive = ++arrivals;
        return found->second;
    }

    bool complete(const Publisher &publisher, const WaitingFrame &frame) const {
        return (!settings.needClassification || frame.has[0]) && (!settings.needDetection || frame.has[1]) &&
               (!settings.needSegmentation || frame.has[2]) && (!settings.needDevice || publisher.hasDevice);
    }

    // Releases the publisher's frames from the front while they are complete or
    // due; all releases every one of them, as a restart does.
    void releaseDue(Publisher &publisher, TimePoint now, bool all = false) {
        while (!publisher.frames.empty()) {
            WaitingFrame &front = publisher.frames.front();
            const bool done = complete(publisher, front);
            if (!all && !done && now < front.deadline) return;
            if (!done) ++counters.framesIncomplete;
            front.entry.deviceInfo = publisher.device;
            if (ready.size() >= settings.outputLimit) {
                ready.pop_front();
                ++counters.framesDropped;
            }
            ready.push_back(std::move(front.entry));
            publisher.frames.pop_front();
            ++released;
        }
    }

    // Removes the results that condition picks: counted late if their frame was
    // already gone when they came, else dropped.
    template <typename Queue, typename Condition> void discard(Queue &queue, Condition &&condition) {
        for (auto it = queue.begin(); it != queue.end();) {
            if (!condition(it->first, it->second)) {
                ++it;
                continue;
            }
            ++(it->second.lateLooking ? counters.resultsLate : counters.resultsDropped);
            it = queue.erase(it);
        }
    }

    void advance(TimePoint now) {
        for (auto &[key, publisher] : publishers) {
            releaseDue(publisher, now);
            forEachQueue(publisher, [&](auto &queue) {
                discard(queue, [&](std::uint32_t, const auto &held) { return held.deadline <= now; });
            });
        }
    }

    std::optional<TimePoint> nextDue() const {
        std::optional<TimePoint> next;
        for (const auto &[key, publisher] : publishers) {
            if (publisher.frames.empty()) continue;
            const TimePoint due = publisher.frames.front().deadline;
            if (!next || due < *next) next = due;
        }
        return next;
    }

    void restart(Publisher &publisher, TimePoint now) {
        ++counters.restarts;
        releaseDue(publisher, now, true);
        // Results that came after the old run's last frame may be the new run's
        // first ones, sent ahead of their frame; the rest belonged to the old run.
        forEachQueue(publisher, [&](auto &queue) {
            discard(queue, [&](std::uint32_t, const auto &held) { return held.arrival < publisher.lastFrameArrival; });
            for (auto &[id, held] : queue) {
                held.lateLooking = false;
                held.deadline = std::min(held.deadline, now + settings.resultWait);
            }
        });
        publisher.running = false;
    }

    void addFrame(const PublisherKey &key, TOLVIXO::FrameInfo &&frame, TimePoint now) {
        Publisher &publisher = touch(key);
        ++counters.framesReceived;
        const std::uint32_t id = frame.frame_id;
        if (publisher.running && id <= publisher.highest) restart(publisher, now);
        // Frames that are due go first, so that the bound below only hits frames still in time.
        releaseDue(publisher, now);
        publisher.running = true;
        publisher.highest = id;
        publisher.lastFrameArrival = publisher.lastActive;
        if (publisher.frames.size() >= settings.maxFramesPerPublisher) {
            publisher.frames.pop_front();
            ++counters.framesDropped;
        }

        WaitingFrame waiting;
        waiting.entry.frameInfo = std::move(frame);
        waiting.deadline = now + settings.resultWait;
        forEachQueue(publisher, [&](auto &queue) {
            using Record = typename std::decay_t<decltype(queue)>::mapped_type::Record;
            // Frames arrive in order: results for lower ids of this run will never meet theirs.
            discard(queue, [&](std::uint32_t frameId, const auto &held) { return frameId < id && !held.lateLooking; });
            auto match = queue.find(id);
            if (match == queue.end()) return;
            Kind<Record>::slot(waiting.entry) = std::move(match->second.record);
            waiting.has[Kind<Record>::index] = true;
            ++counters.resultsMatched;
            queue.erase(match);
        });
        publisher.frames.push_back(std::move(waiting));
        releaseDue(publisher, now);
    }

    template <typename Result> void addResult(const PublisherKey &key, Result &&result, TimePoint now) {
        Publisher &publisher = touch(key);
        const std::uint32_t id = result.frame_id;
        constexpr std::size_t kind = Kind<Result>::index;
        auto frame = std::find_if(publisher.frames.begin(), publisher.frames.end(),
                                  [&](const WaitingFrame &f) { return f.entry.frameInfo.frame_id == id; });
        if (frame != publisher.frames.end()) {
            if (frame->has[kind]) {
                ++counters.resultsDropped;
                return;
            }
            Kind<Result>::slot(frame->entry) = std::move(result);
            frame->has[kind] = true;
            ++counters.resultsMatched;
            releaseDue(publisher, now);
            return;
        }

        auto &queue = std::get<ResultQueue<Result>>(publisher.results);
        const bool lateLooking = publisher.running && id <= publisher.highest;
        auto same = queue.find(id);
        if (same == queue.end() && queue.size() >= settings.maxResultsPerKind) {
            same = std::min_element(queue.begin(), queue.end(),
                                    [](auto &a, auto &b) { return a.second.arrival < b.second.arrival; });
        }
        if (same != queue.end()) {
            ++counters.resultsDropped;
            queue.erase(same);
        }
        const TimePoint deadline = now + (lateLooking ? settings.resultWait : settings.resultTtl);
        queue.emplace(id, Held<Result>{std::move(result), deadline, publisher.lastActive, lateLooking});
    }

    std::uint64_t waitingFrames() const {
        std::uint64_t count = ready.size();
        for (const auto &[key, publisher] : publishers)
            count += publisher.frames.size();
        return count;
    }
};

PairingEngine::PairingEngine(PairingSettings settings, Clock clock)
    : settings_(clamped(settings)),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); })),
      state_(std::make_unique<State>(settings_)) {}

PairingEngine::~PairingEngine() = default;

void PairingEngine::push(const PublisherKey &key, TOLVIXO::FrameInfo &&frame) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_->addFrame(key, std::move(frame), clock_());
    }
    // Even without a release the consumer may now have an earlier frame to time.
    wake_.notify_one();
}

void PairingEngine::push(const PublisherKey &key, TOLVIXO::DeviceInfo &&device) {
    bool released = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Publisher &publisher = state_->touch(key);
        publisher.device = std::move(device);
        // A publisher's first device record can complete frames that waited for it.
        const bool first = !publisher.hasDevice;
        publisher.hasDevice = true;
        if (first) {
            const std::uint64_t before = state_->released;
            state_->releaseDue(publisher, clock_());
            released = state_->released != before;
        }
    }
    if (released) wake_.notify_one();
}

template <typename Result> void PairingEngine::pushResult(const PublisherKey &key, Result &&result) {
    bool released = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::uint64_t before = state_->released;
        state_->addResult(key, std::move(result), clock_());
        released = state_->released != before;
    }
    if (released) wake_.notify_one();
}

void PairingEngine::push(const PublisherKey &key, TOLVIXO::Information<TOLVIXO::ClassificationData> &&result) {
    pushResult(key, std::move(result));
}

void PairingEngine::push(const PublisherKey &key, TOLVIXO::Information<TOLVIXO::DetectionBoxData> &&result) {
    pushResult(key, std::move(result));
}

void PairingEngine::push(const PublisherKey &key, TOLVIXO::SegmentInfo &&result) { pushResult(key, std::move(result)); }

bool PairingEngine::pop(SynchronizedData &out, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        State &state = *state_;
        if (state.stopped) return false;
        const TimePoint now = clock_();
        state.advance(now);
        if (!state.ready.empty()) {
            out = std::move(state.ready.front());
            state.ready.pop_front();
            ++state.counters.framesDelivered;
            return true;
        }
        const auto realNow = std::chrono::steady_clock::now();
        if (realNow >= end) return false;
        auto wait = end - realNow;
        // advance() released every frame due by now, so the next one is still ahead.
        if (const auto due = state.nextDue()) wait = std::min(wait, *due - now);
        wake_.wait_for(lock, wait);
    }
}

void PairingEngine::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_->stopped = true;
    }
    wake_.notify_all();
}

void PairingEngine::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = std::make_unique<State>(settings_);
}

PairingCounters PairingEngine::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    PairingCounters counters = state_->counters;
    counters.framesWaiting = state_->waitingFrames();
    return counters;
}
