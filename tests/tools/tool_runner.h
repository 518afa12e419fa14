#pragma once
// Runs qxbus and other programs as child processes for the tests.

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace qxbus_test {

using Env = std::vector<std::pair<std::string, std::string>>;

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Absolute path of a program found on PATH, or "" when there is none.
std::string findProgram(const std::string &name);

// Runs argv (argv[0] an absolute path) in cwd and waits for it to end.
RunResult run(const std::vector<std::string> &argv, const std::string &cwd, const Env &env = {},
              std::chrono::seconds timeout = std::chrono::seconds(120));

// Runs qxbus with these arguments.
RunResult runQxbus(const std::vector<std::string> &args, const std::string &cwd, const Env &env = {});

std::vector<std::string> qxbusArgv(const std::vector<std::string> &args);

std::vector<std::string> lines(const std::string &text);

} // namespace qxbus_test
