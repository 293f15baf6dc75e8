#pragma once

#include <signal.h>

#include <initializer_list>

namespace pavix::demo {

// Receives the given signals as readable data on a file descriptor (signalfd) instead of
// through a handler, so no handler and no shared flag is needed. The signals are blocked for
// the process from then on. Create it before any thread starts, so every thread inherits the
// blocked mask.
class SignalWatch {
  public:
    explicit SignalWatch(std::initializer_list<int> signals);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    int fd() const { return fd_; }
    // The number of the signal that arrived, or 0 when none is pending; does not block.
    int take();

  private:
    int fd_;
};

}  // namespace pavix::demo
