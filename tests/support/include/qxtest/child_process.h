#pragma once
// Runs another process of the test suite (publisher, subscriber, pipeline)
// with its own working directory and environment, output captured to files.

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace qxtest {

class ChildProcess {
  public:
    ChildProcess(const std::vector<std::string> &argv, const std::string &cwd,
                 const std::vector<std::pair<std::string, std::string>> &env = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // Exit status (exit code, or 128 + signal); -1 when it did not end in time
    // (the child is then killed).
    int wait(std::chrono::milliseconds timeout);
    void terminate(int signal = 15);
    bool running();
    pid_t pid() const { return pid_; }
    std::string out() const;
    std::string err() const;
    // Polls stdout until it contains text or the timeout passes.
    bool waitForOutput(const std::string &text, std::chrono::milliseconds timeout) const;

  private:
    // Records the exit status if the child has ended.
    bool reap();

    pid_t pid_ = -1;
    int status_ = -1;
    bool reaped_ = false;
    std::string outPath_;
    std::string errPath_;
};

} // namespace qxtest
