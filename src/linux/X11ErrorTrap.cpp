#include "linux/X11ErrorTrap.h"

#include <mutex>

namespace pavix {
namespace {

// The one installation shared by all traps of the process (see the class comment).
struct Installation {
    std::mutex mutex;
    int traps = 0;
    XErrorHandler previous = nullptr;
};

Installation& installation() {
    static Installation shared;
    return shared;
}

thread_local X11ErrorTrap* innermost = nullptr;

}  // namespace

X11ErrorTrap::X11ErrorTrap(Display* display) : display_(display), outer_(innermost) {
    {
        auto& shared = installation();
        std::lock_guard lock(shared.mutex);
        if (shared.traps++ == 0) {
            shared.previous = XSetErrorHandler(&X11ErrorTrap::record);
        }
    }
    innermost = this;
}

X11ErrorTrap::~X11ErrorTrap() {
    // Errors of requests made inside the scope must arrive while the handler still records.
    XSync(display_, False);
    innermost = outer_;
    auto& shared = installation();
    std::lock_guard lock(shared.mutex);
    if (--shared.traps == 0) {
        XSetErrorHandler(shared.previous);
        shared.previous = nullptr;
    }
}

int X11ErrorTrap::sync() {
    XSync(display_, False);
    int error = error_;
    error_ = 0;
    return error;
}

int X11ErrorTrap::record(Display* display, XErrorEvent* event) {
    for (auto* trap = innermost; trap != nullptr; trap = trap->outer_) {
        if (trap->display_ == display) {
            if (trap->error_ == 0) {
                trap->error_ = event->error_code;
            }
            return 0;
        }
    }
    // An error on a connection without a trap on this thread: ignoring it is safer than the
    // default handler, which would end the process.
    return 0;
}

}  // namespace pavix
