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

// A program started by a test, with its standard output and standard error collected line by
// line on reader threads. The destructor kills what is still running.
class ChildProcess {
  public:
    ChildProcess(std::vector<std::string> arguments,
                 std::map<std::string, std::string> environment = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits for a line (of either stream) that contains `fragment`; returns that line.
    std::optional<std::string> waitForLine(const std::string& fragment,
                                           std::chrono::milliseconds limit);
    std::vector<std::string> lines() const;
    std::string output() const;

    void signal(int number);
    // The exit status (128 + signal when killed), or none when it did not end in time.
    std::optional<int> wait(std::chrono::milliseconds limit);
    pid_t pid() const { return pid_; }

  private:
    void read(int fd);

    pid_t pid_ = -1;
    std::optional<int> status_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    int openStreams_ = 2;
    std::vector<std::thread> readers_;
};

}  // namespace pavix::test
