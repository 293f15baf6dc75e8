#pragma once

#include <string>

namespace pavix {

// The calling thread's name as the system's tools show it (top -H, gdb, /proc/PID/task/TID/comm).
// Names are kept to 15 characters, the longest Linux stores.
void nameThisThread(const std::string& name);
std::string thisThreadName();

// Names the calling thread while it lives, then gives it back the name it had. Threads started
// meanwhile keep the name: on Linux a new thread starts with its creator's, so a library's own
// workers can be told apart from the thread that opened the library.
class ThreadNameScope {
  public:
    explicit ThreadNameScope(const std::string& name);
    ~ThreadNameScope();
    ThreadNameScope(const ThreadNameScope&) = delete;
    ThreadNameScope& operator=(const ThreadNameScope&) = delete;

  private:
    std::string previous_;
};

}  // namespace pavix
