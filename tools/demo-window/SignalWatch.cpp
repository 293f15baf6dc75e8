#include "SignalWatch.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace pavix::demo {

SignalWatch::SignalWatch(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (int signal : signals) {
        sigaddset(&set, signal);
    }
    // A signal that is not blocked would still run its default action (ending the process)
    // before signalfd could report it.
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "sigprocmask");
    }
    fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

SignalWatch::~SignalWatch() {
    // The signals stay blocked: unblocking would run the default action of one that arrived
    // after the last take and end a process that is already on its way out with the wrong
    // status.
    close(fd_);
}

int SignalWatch::take() {
    signalfd_siginfo info{};
    if (read(fd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return 0;
    }
    return static_cast<int>(info.ssi_signo);
}

}  // namespace pavix::demo
