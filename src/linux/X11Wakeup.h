#pragma once

#include <chrono>

namespace pavix {

// Lets another thread interrupt a thread that waits for events on an X connection.
class X11Wakeup {
  public:
    X11Wakeup();
    ~X11Wakeup();
    X11Wakeup(const X11Wakeup&) = delete;
    X11Wakeup& operator=(const X11Wakeup&) = delete;

    // Safe from any thread.
    void signal();
    // Waits until the connection `fd` has input, `signal` was called, or `timeout` passed.
    // Answers true when woken by `signal` (the signal is consumed).
    bool wait(int fd, std::chrono::nanoseconds timeout);

  private:
    int eventFd_;
};

}  // namespace pavix
