#pragma once
// Command line of qxbus: one command, its positional arguments and options.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qxbus {

enum class Command { help, list, echo, stats, publish };

struct Options {
    Command command = Command::help;
    std::string root;     // --root: configuration root, instead of searching
    std::string tagGroup; // echo, publish
    std::string json;     // publish: the record as JSON text
    std::optional<std::string> flow;
    bool jsonOutput = false;
    std::optional<std::uint64_t> count;
    std::optional<double> timeoutSeconds;
    double durationSeconds = 5.0;
    double waitSeconds = 5.0;     // publish: how long to wait for a subscriber
    double intervalSeconds = 0.0; // publish: pause between records
};

// Parses the arguments after the program name. Throws UsageError.
Options parseOptions(const std::vector<std::string> &args);

std::string usageText();

} // namespace qxbus
