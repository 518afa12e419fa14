#pragma once
// Command line of the demo program: one process publishes, another subscribes.

#include <optional>
#include <string>

namespace qxdemo {

struct DemoOptions {
    enum class Mode { publish, subscribe } mode = Mode::publish;
    int frames = 300;        // publisher: frames to send
    int settleMs = 1500;     // publisher: time in READY for subscribers to discover it
    int fps = 30;            // both: frame rate of the stream
    int width = 640;         // both: picture size
    int height = 480;
    int seconds = 30;        // subscriber: upper bound on the whole run
    int idleSeconds = 4;     // subscriber: stop this long after the last frame
    int expect = 0;          // subscriber: stop once this many frames arrived (0: no bound)
    int snapshots = 5;       // subscriber: PNG files to write
    std::string outDir = "demo-output";
    std::string contextId;   // both: flow to publish on / subscribe to
    std::string pairing = "frame-id"; // subscriber: qxedgesrc's pairing of frames with results
    bool record = true;      // subscriber: overlay, video and snapshots (off for long runs)
};

// Parses argv; on error returns nothing and puts the reason in error.
std::optional<DemoOptions> parseOptions(int argc, char** argv, std::string& error);
const char* usageText();

} // namespace qxdemo
