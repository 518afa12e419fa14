#include "demo_options.h"

#include <cstdlib>
#include <cstring>

namespace qxdemo {

namespace {
bool parsePositive(const char* text, int& out) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (!end || *end != '\0' || v <= 0 || v > 1000000) return false;
    out = static_cast<int>(v);
    return true;
}
} // namespace

const char* usageText() {
    return "usage: qxedge-demo publish [--frames N] [--fps F] [--width W] [--height H] [--context-id ID]\n"
           "                           [--settle-ms MS]\n"
           "       qxedge-demo subscribe [--seconds S] [--idle S] [--expect N] [--fps F] [--width W] [--height H]\n"
           "                             [--snapshots K] [--out DIR] [--context-id ID] [--pairing MODE]\n"
           "                             [--record yes|no]\n"
           "\n"
           "publish   runs videotestsrc pattern=ball ! qxanalyze ! qxedgesink with every tag group, after\n"
           "          MS milliseconds on the bus without frames (default 1500) for subscribers to find it.\n"
           "subscribe runs qxedgesrc ! qxoverlay, writes DIR/received.mkv and K PNG snapshots, and prints\n"
           "          what it received: frames, frames with matched results, frame rate, latency.\n"
           "          --record no keeps only the counting (no overlay, video or snapshots), for long runs.\n";
}

std::optional<DemoOptions> parseOptions(int argc, char** argv, std::string& error) {
    DemoOptions o;
    if (argc < 2) {
        error = "missing mode (publish or subscribe)";
        return std::nullopt;
    }
    if (std::strcmp(argv[1], "publish") == 0) {
        o.mode = DemoOptions::Mode::publish;
    } else if (std::strcmp(argv[1], "subscribe") == 0) {
        o.mode = DemoOptions::Mode::subscribe;
    } else {
        error = std::string("unknown mode '") + argv[1] + "'";
        return std::nullopt;
    }
    struct IntOption {
        const char* name;
        int* target;
    };
    const IntOption ints[] = {{"--frames", &o.frames},   {"--fps", &o.fps},         {"--width", &o.width},
                              {"--height", &o.height},   {"--seconds", &o.seconds}, {"--idle", &o.idleSeconds},
                              {"--expect", &o.expect},   {"--snapshots", &o.snapshots},
                              {"--settle-ms", &o.settleMs}};
    for (int i = 2; i < argc; ++i) {
        const char* arg = argv[i];
        if (i + 1 >= argc) {
            error = std::string("option ") + arg + " needs a value";
            return std::nullopt;
        }
        const char* value = argv[++i];
        bool known = false;
        for (const auto& opt : ints) {
            if (std::strcmp(arg, opt.name) == 0) {
                known = true;
                if (!parsePositive(value, *opt.target)) {
                    error = std::string("option ") + arg + " needs a positive number, not '" + value + "'";
                    return std::nullopt;
                }
            }
        }
        if (std::strcmp(arg, "--out") == 0) {
            known = true;
            o.outDir = value;
        } else if (std::strcmp(arg, "--context-id") == 0) {
            known = true;
            o.contextId = value;
        } else if (std::strcmp(arg, "--pairing") == 0) {
            known = true;
            o.pairing = value;
            if (o.pairing != "frame-id" && o.pairing != "compatible") {
                error = std::string("option --pairing takes frame-id or compatible, not '") + value + "'";
                return std::nullopt;
            }
        } else if (std::strcmp(arg, "--record") == 0) {
            known = true;
            if (std::strcmp(value, "yes") != 0 && std::strcmp(value, "no") != 0) {
                error = std::string("option --record takes yes or no, not '") + value + "'";
                return std::nullopt;
            }
            o.record = std::strcmp(value, "yes") == 0;
        }
        if (!known) {
            error = std::string("unknown option ") + arg;
            return std::nullopt;
        }
    }
    return o;
}

} // namespace qxdemo
