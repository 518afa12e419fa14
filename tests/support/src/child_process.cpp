#include "qxtest/child_process.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qxtest {

namespace {
std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}
} // namespace

ChildProcess::ChildProcess(const std::vector<std::string> &argv, const std::string &cwd,
                           const std::vector<std::pair<std::string, std::string>> &env) {
    if (argv.empty()) throw std::invalid_argument("empty argv");
    static int counter = 0;
    const std::string base = cwd + "/child-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    outPath_ = base + ".out";
    errPath_ = base + ".err";
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        // Only async-signal-safe work from here on: the parent may hold DDS threads.
        if (::chdir(cwd.c_str()) != 0) ::_exit(126);
        const int out = ::open(outPath_.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        const int err = ::open(errPath_.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        if (out < 0 || err < 0) ::_exit(126);
        ::dup2(out, 1);
        ::dup2(err, 2);
        for (const auto &[k, v] : env)
            ::setenv(k.c_str(), v.c_str(), 1);
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (!reaped_ && pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

bool ChildProcess::reap() {
    int st = 0;
    if (::waitpid(pid_, &st, WNOHANG) != pid_) return false;
    reaped_ = true;
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return true;
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!reaped_ && !reap()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            reaped_ = true;
            status_ = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status_;
}

void ChildProcess::terminate(int signal) {
    if (!reaped_) ::kill(pid_, signal);
}

bool ChildProcess::running() { return !reaped_ && !reap(); }

std::string ChildProcess::out() const { return slurp(outPath_); }
std::string ChildProcess::err() const { return slurp(errPath_); }

bool ChildProcess::waitForOutput(const std::string &text, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (out().find(text) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return out().find(text) != std::string::npos;
}

} // namespace qxtest
