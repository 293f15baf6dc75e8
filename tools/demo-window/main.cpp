// pavix-demo-window: a window with moving content, for recording demonstrations and tests.

#include <poll.h>
#include <sysexits.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <vector>

#include "DemoOptions.h"
#include "DemoWindow.h"
#include "FrameTimer.h"
#include "SignalWatch.h"

namespace {

using pavix::demo::DemoOptions;

int run(const DemoOptions& options) {
    // Before anything else, so that SIGTERM never meets the default action.
    pavix::demo::SignalWatch signals({SIGTERM, SIGINT});
    pavix::demo::DemoWindow window(options);
    std::printf("window 0x%lx\n", static_cast<unsigned long>(window.id()));
    std::fflush(stdout);

    // 30 frames per second.
    pavix::demo::FrameTimer timer(std::chrono::nanoseconds(1'000'000'000 / 30));
    auto start = std::chrono::steady_clock::now();
    std::uint64_t frame = 0;
    pollfd waits[] = {{window.fd(), POLLIN, 0}, {timer.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
    for (;;) {
        // Xlib may have read events into its queue during earlier requests, where poll cannot
        // see them: handle those first.
        if (!window.processEvents()) {
            return 0;
        }
        if (::poll(waits, std::size(waits), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            std::perror("pavix-demo-window: poll");
            return 1;
        }
        if ((waits[2].revents & POLLIN) && signals.take() != 0) {
            return 0;
        }
        if ((waits[0].revents & (POLLHUP | POLLERR))) {
            std::fprintf(stderr, "pavix-demo-window: the X connection closed\n");
            return 1;
        }
        if ((waits[1].revents & POLLIN) && timer.expirations() > 0) {
            auto elapsed = std::chrono::steady_clock::now() - start;
            window.draw(elapsed, ++frame);
            if (options.seconds && elapsed >= std::chrono::seconds(*options.seconds)) {
                return 0;
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    DemoOptions options;
    try {
        options = DemoOptions::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const DemoOptions::Invalid& error) {
        std::fprintf(stderr, "pavix-demo-window: %s\n%s", error.what(), DemoOptions::usage());
        return EX_USAGE;
    }
    if (options.help) {
        std::fputs(DemoOptions::usage(), stdout);
        return 0;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pavix-demo-window: %s\n", error.what());
        return 1;
    }
}
