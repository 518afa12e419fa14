#include "marlet/marlet.h"

namespace com::quorixtech::marlet {

void Dispatcher::throwEvent() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++events_;
    }
    cv_.notify_all();
}

bool Dispatcher::waitEvent(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    // Each waiter compares against what had been seen when it started, so one
    // throwEvent wakes every waiter, not only the first to get the lock.
    const std::uint64_t seenAtStart = seen_;
    if (!cv_.wait_for(lock, timeout, [&] { return events_ != seenAtStart; })) return false;
    seen_ = events_;
    return true;
}

} // namespace com::quorixtech::marlet
