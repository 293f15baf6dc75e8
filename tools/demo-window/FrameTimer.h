#pragma once

#include <chrono>
#include <cstdint>

namespace pavix::demo {

// A periodic timer as a file descriptor (timerfd on the monotonic clock), to wait on together
// with the X connection.
class FrameTimer {
  public:
    explicit FrameTimer(std::chrono::nanoseconds period);
    ~FrameTimer();
    FrameTimer(const FrameTimer&) = delete;
    FrameTimer& operator=(const FrameTimer&) = delete;

    int fd() const { return fd_; }
    // The periods that passed since the last call (0 when none did); does not block.
    std::uint64_t expirations();

  private:
    int fd_;
};

}  // namespace pavix::demo
