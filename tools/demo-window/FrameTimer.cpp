#include "FrameTimer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace pavix::demo {

FrameTimer::FrameTimer(std::chrono::nanoseconds period)
    : fd_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "timerfd_create");
    }
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(period);
    timespec interval{static_cast<time_t>(seconds.count()),
                      static_cast<long>((period - seconds).count())};
    itimerspec schedule{interval, interval};
    if (timerfd_settime(fd_, 0, &schedule, nullptr) != 0) {
        int error = errno;
        close(fd_);
        throw std::system_error(error, std::generic_category(), "timerfd_settime");
    }
}

FrameTimer::~FrameTimer() {
    close(fd_);
}

std::uint64_t FrameTimer::expirations() {
    std::uint64_t count = 0;
    if (read(fd_, &count, sizeof count) != static_cast<ssize_t>(sizeof count)) {
        return 0;
    }
    return count;
}

}  // namespace pavix::demo
