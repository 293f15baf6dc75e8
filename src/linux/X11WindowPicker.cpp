#include "linux/X11WindowPicker.h"

#include <X11/keysym.h>

#include <chrono>
#include <stdexcept>

#include "core/runtime/ThreadName.h"
#include "linux/X11Display.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11InputGrab.h"
#include "linux/X11Properties.h"

namespace pavix {
namespace {

using Clock = std::chrono::steady_clock;

// How long to keep asking for the grab while another client holds one (an open menu closes,
// a button is released).
constexpr auto grabPatience = std::chrono::seconds(2);
constexpr auto grabRetry = std::chrono::milliseconds(50);

}  // namespace

X11WindowPicker::X11WindowPicker(std::string displayName) : displayName_(std::move(displayName)) {}

X11WindowPicker::~X11WindowPicker() {
    cancel();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void X11WindowPicker::present(WindowPickerHandlers handlers) {
    if (accepting_.exchange(true)) {
        if (handlers.failed) {
            handlers.failed("A window is already being picked.");
        }
        return;
    }
    if (thread_.joinable()) {
        thread_.join();  // the previous pick has ended
    }
    canceling_ = false;
    thread_ = std::thread(&X11WindowPicker::run, this, std::move(handlers));
}

void X11WindowPicker::cancel() {
    if (accepting_) {
        canceling_ = true;
        wakeup_.signal();
    }
}

void X11WindowPicker::run(WindowPickerHandlers handlers) {
    nameThisThread("pavix-picker");
    unsigned long window = None;
    std::string failure;
    try {
        X11Display display(displayName_);
        X11ErrorTrap trap(display.get());
        window = pick(display);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    accepting_ = false;
    if (!failure.empty()) {
        if (handlers.failed) {
            handlers.failed(failure);
        }
    } else if (window == None) {
        if (handlers.canceled) {
            handlers.canceled();
        }
    } else if (handlers.selected) {
        handlers.selected(static_cast<std::uint32_t>(window));
    }
}

unsigned long X11WindowPicker::pick(X11Display& display) {
    X11InputGrab grab(display.get(), display.root());
    auto deadline = Clock::now() + grabPatience;
    while (!grab.take()) {
        if (canceling_) {
            return None;
        }
        if (Clock::now() >= deadline) {
            throw std::runtime_error(
                "Another application holds the pointer or keyboard; close its menu and try again.");
        }
        wakeup_.wait(display.fd(), grabRetry);
    }
    XFlush(display.get());

    Window chosen = None;
    while (!canceling_) {
        while (XPending(display.get()) > 0) {
            XEvent event;
            XNextEvent(display.get(), &event);
            if (event.type == KeyPress && XLookupKeysym(&event.xkey, 0) == XK_Escape) {
                return None;
            }
            if (event.type == ButtonPress && event.xbutton.button == Button1) {
                // The grab reports the click on the root; `subwindow` is the top-level under
                // it (the manager's frame), inside which the application's window is the one
                // carrying WM_STATE. A click on the bare desktop chooses nothing.
                Window top = event.xbutton.subwindow;
                if (top != None) {
                    Window client = X11Properties::clientWindow(display, top);
                    chosen = client != None ? client : top;
                }
            }
            // Finished on the release, so that the application under the pointer never sees
            // half a click.
            if (event.type == ButtonRelease && event.xbutton.button == Button1 && chosen != None) {
                return chosen;
            }
        }
        wakeup_.wait(display.fd(), std::chrono::seconds(1));
    }
    return None;
}

}  // namespace pavix
