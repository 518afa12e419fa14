#pragma once
// Ctrl-C and SIGTERM end a running command cleanly (things closed, the
// participant left) instead of killing the process mid-write.

namespace qxbus {

void installStopHandlers();
bool stopRequested();

} // namespace qxbus
