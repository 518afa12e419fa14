#include "stop_signal.h"

#include <csignal>

namespace qxbus {

namespace {
volatile std::sig_atomic_t stopFlag = 0;
extern "C" void onStopSignal(int) { stopFlag = 1; }
} // namespace

void installStopHandlers() {
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool stopRequested() { return stopFlag != 0; }

} // namespace qxbus
