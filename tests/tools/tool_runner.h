#pragma once
// Runs qxbus and other programs as child processes for the tests.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "qxtest/child_process.h"

namespace qxbus_test {

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Absolute path of a program found on PATH, or "" when there is none.
inline std::string findProgram(const std::string &name) {
    const char *path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    std::error_code ec;
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (std::filesystem::is_regular_file(std::filesystem::path(dir) / name, ec)) return dir + "/" + name;
    return "";
}

// Runs argv (argv[0] an absolute path) in cwd and waits for it to end.
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

inline RunResult runQxbus(const std::vector<std::string> &args, const std::string &cwd) {
    return run(qxbusArgv(args), cwd);
}

} // namespace qxbus_test
