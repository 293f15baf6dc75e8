#include "linux/X11Wakeup.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace pavix {

X11Wakeup::X11Wakeup() : eventFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (eventFd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

X11Wakeup::~X11Wakeup() {
    close(eventFd_);
}

void X11Wakeup::signal() {
    std::uint64_t one = 1;
    [[maybe_unused]] auto written = write(eventFd_, &one, sizeof one);
}

bool X11Wakeup::wait(int fd, std::chrono::nanoseconds timeout) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {eventFd_, POLLIN, 0}};
    auto ns = std::max<std::int64_t>(timeout.count(), 0);
    timespec limit{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    if (ppoll(fds, 2, &limit, nullptr) <= 0) {
        return false;
    }
    if (fds[1].revents & POLLIN) {
        std::uint64_t count;
        [[maybe_unused]] auto read = ::read(eventFd_, &count, sizeof count);
        return true;
    }
    return false;
}

}  // namespace pavix
