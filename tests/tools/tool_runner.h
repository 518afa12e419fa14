#pragma once
// Runs qxbus and other programs as child processes for the tests.

#include <chrono>
#include <string>
#include <vector>

#include "qxtest/child_process.h"

namespace qxbus_test {

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs argv (argv[0] an absolute path: /usr/bin/env finds others on PATH) in cwd and waits for it to end.
inline RunResult run(const std::vector<std::string> &argv, const std::string &cwd,
                     const std::vector<std::pair<std::string, std::string>> &env = {},
                     std::chrono::seconds timeout = std::chrono::seconds(120)) {
    qxtest::ChildProcess child(argv, cwd, env);
    const int status = child.wait(timeout);
    return {status, child.out(), child.err()};
}

inline std::vector<std::string> qxbusArgv(std::vector<std::string> args) {
    args.insert(args.begin(), QXBUS_PROGRAM);
    return args;
}

} // namespace qxbus_test
