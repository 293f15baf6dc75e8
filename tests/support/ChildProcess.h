#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace pavix::test {

// A program started by a test, a benchmark or a soak, with posix_spawn (never fork: the
// caller has threads by then). Its standard output and standard error are collected line by
// line on a thread of its own. The destructor kills what still runs, reaps it and closes what
// it holds.
class ChildProcess {
  public:
    // arguments[0] is the program: a path, or a bare name looked up on the PATH. `environment`
    // is added to this process's own. The child's standard input is /dev/null, or with
    // `holdInput` a pipe this object holds open: a child that reads it waits until it is
    // killed, and sees its end when this object goes away.
    ChildProcess(std::vector<std::string> arguments,
                 std::map<std::string, std::string> environment = {}, bool holdInput = false);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits for a line (of either stream, printed at any time so far) that contains
    // `fragment`; returns that line, or nothing when none came within `limit` or the child
    // closed its output.
    std::optional<std::string> waitForLine(const std::string& fragment,
                                           std::chrono::milliseconds limit);
    // The line after the last one this returned; nothing when none came within `limit` or the
    // child closed its output.
    std::optional<std::string> nextLine(std::chrono::milliseconds limit);
    std::vector<std::string> lines() const;
    std::string output() const;

    void signal(int number);
    // The exit status (128 + signal when killed), or none when it did not end in time.
    std::optional<int> wait(std::chrono::milliseconds limit);
    pid_t pid() const { return pid_; }

  private:
    void read();

    pid_t pid_ = -1;
    int pidfd_ = -1;   // becomes readable when the child ends
    int output_ = -1;  // read end of the child's standard output and error
    int input_ = -1;   // write end of the child's standard input, when held
    std::optional<int> status_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::size_t next_ = 0;  // the line nextLine returns next
    bool closed_ = false;   // the child's output ended
    std::thread reader_;
};

}  // namespace pavix::test
