#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace pavix::soak {

// A program the soak starts with posix_spawn (never fork: the soak has threads by then), its
// standard output and standard error read line by line on a thread of its own. The destructor
// kills what still runs, reaps it and closes what it holds.
class Process {
  public:
    struct Options {
        std::vector<std::string> arguments;              // [0] is the program's path
        std::map<std::string, std::string> environment;  // added to this process's own
        // The child's standard input is a pipe this object holds open: a child that reads it
        // waits until it is killed, and sees its end when this object goes away.
        bool holdInput = false;
    };

    explicit Process(Options options);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }

    // The first line since the last one this returned or skipped that contains `fragment`;
    // nothing when none came within `limit` (or the child closed its output).
    std::optional<std::string> waitForLine(const std::string& fragment,
                                           std::chrono::milliseconds limit);
    // Everything printed so far.
    std::string output() const;

    void signal(int number);
    // The exit status (128 + the signal when killed); nothing when it did not end in `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit);

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
    std::size_t cursor_ = 0;  // lines before it were returned or skipped by waitForLine
    bool closed_ = false;     // the child's output ended
    std::thread reader_;
};

}  // namespace pavix::soak
