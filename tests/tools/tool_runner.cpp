#include "tool_runner.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "qxtest/child_process.h"

namespace qxbus_test {

std::string findProgram(const std::string &name) {
    const char *path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const auto candidate = std::filesystem::path(dir) / name;
        std::error_code ec;
        if (std::filesystem::is_regular_file(candidate, ec)) return candidate.string();
    }
    return "";
}

RunResult run(const std::vector<std::string> &argv, const std::string &cwd, const Env &env,
              std::chrono::seconds timeout) {
    qxtest::ChildProcess child(argv, cwd, env);
    RunResult result;
    result.status = child.wait(timeout);
    result.out = child.out();
    result.err = child.err();
    return result;
}

std::vector<std::string> qxbusArgv(const std::vector<std::string> &args) {
    std::vector<std::string> argv = {QXBUS_PROGRAM};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

RunResult runQxbus(const std::vector<std::string> &args, const std::string &cwd, const Env &env) {
    return run(qxbusArgv(args), cwd, env);
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) out.push_back(line);
    return out;
}

} // namespace qxbus_test
