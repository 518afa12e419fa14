#pragma once
// The two kinds of failure the tool reports, each mapped to its own exit code,
// so scripts can tell a typing mistake from a bus that stayed silent.

#include <stdexcept>
#include <string>

namespace qxbus {

enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1, // runtime: nothing received, bus or configuration trouble
    kExitUsage = 2,   // bad arguments, unknown tag group, bad JSON
};

// The command line (or the JSON given on it) is wrong; exit code 2.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The command was well formed but could not do its job; exit code 1.
class RuntimeFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace qxbus
