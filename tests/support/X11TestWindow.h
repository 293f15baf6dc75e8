#pragma once

// Plain Xlib windows made by a test on its own connection, with the properties a real
// application sets. Header-only: only the integration tests, which link the X11 libraries,
// include it.

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace pavix::test {

// Polls `condition` until it holds or `timeout` passes; for states of another process (the
// X server, the window manager) that announce nothing this process can wait on.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// The test's connection to the display that scripts/with-desktop started.
class X11TestDisplay {
  public:
    X11TestDisplay() : display_(XOpenDisplay(nullptr)) {
        if (display_ == nullptr) {
            throw std::runtime_error("no X display; run under scripts/with-desktop");
        }
    }
    ~X11TestDisplay() { XCloseDisplay(display_); }
    X11TestDisplay(const X11TestDisplay&) = delete;
    X11TestDisplay& operator=(const X11TestDisplay&) = delete;

    Display* get() const { return display_; }
    Window root() const { return DefaultRootWindow(display_); }
    Atom atom(const char* name) const { return XInternAtom(display_, name, False); }

    // Where the window's top-left lies on the screen.
    std::pair<int, int> position(Window window) const {
        int x = 0, y = 0;
        Window child = None;
        XTranslateCoordinates(display_, window, root(), 0, 0, &x, &y, &child);
        return {x, y};
    }

  private:
    Display* display_;
};

struct X11TestWindowOptions {
    std::string title = "Pavix test window";
    int x = 100, y = 100, width = 400, height = 300;
    std::uint32_t colour = 0xff0000;  // 0xRRGGBB
    std::string instance = "pavix-test", className = "Pavix-test";
    long pid = static_cast<long>(getpid());  // 0 leaves _NET_WM_PID unset
    bool overrideRedirect = false;           // placed without the window manager (a pop-up)
    const char* type = nullptr;              // _NET_WM_WINDOW_TYPE_… or none
    Window transientFor = None;
    // The smallest and largest sizes in WM_NORMAL_HINTS; 0 leaves a limit out.
    int minWidth = 0, minHeight = 0, maxWidth = 0, maxHeight = 0;
};

// A window of another application: a class of its own, and not this process's pid.
inline X11TestWindowOptions otherApplication(int x, int y, int width, int height,
                                             std::uint32_t colour) {
    return {.title = "Other application",
            .x = x,
            .y = y,
            .width = width,
            .height = height,
            .colour = colour,
            .instance = "other",
            .className = "Other",
            .pid = 1};
}

// A pop-up menu, placed without the window manager as toolkits place them.
inline X11TestWindowOptions popupMenu(int x, int y, int width, int height,
                                      std::uint32_t colour = 0xff0000,
                                      const char* type = "_NET_WM_WINDOW_TYPE_POPUP_MENU") {
    return {.title = "",
            .x = x,
            .y = y,
            .width = width,
            .height = height,
            .colour = colour,
            .overrideRedirect = true,
            .type = type};
}

class X11TestWindow {
  public:
    X11TestWindow(X11TestDisplay& display, X11TestWindowOptions options)
        : display_(display), options_(std::move(options)) {
        Display* d = display.get();
        XSetWindowAttributes attributes{};
        attributes.background_pixel = options_.colour;
        attributes.override_redirect = options_.overrideRedirect;
        window_ = XCreateWindow(d, display.root(), options_.x, options_.y, options_.width,
                                options_.height, 0, CopyFromParent, InputOutput, CopyFromParent,
                                CWBackPixel | CWOverrideRedirect, &attributes);
        XSizeHints hints{};
        hints.flags = USPosition | USSize;
        hints.x = options_.x;
        hints.y = options_.y;
        hints.width = options_.width;
        hints.height = options_.height;
        if (options_.minWidth > 0 || options_.minHeight > 0) {
            hints.flags |= PMinSize;
            hints.min_width = options_.minWidth;
            hints.min_height = options_.minHeight;
        }
        if (options_.maxWidth > 0 || options_.maxHeight > 0) {
            hints.flags |= PMaxSize;
            hints.max_width = options_.maxWidth;
            hints.max_height = options_.maxHeight;
        }
        XSetWMNormalHints(d, window_, &hints);
        setTitle(options_.title);
        XClassHint classHint{options_.instance.data(), options_.className.data()};
        XSetClassHint(d, window_, &classHint);
        if (options_.pid != 0) {
            XChangeProperty(d, window_, display.atom("_NET_WM_PID"), XA_CARDINAL, 32,
                            PropModeReplace, reinterpret_cast<unsigned char*>(&options_.pid), 1);
        }
        if (options_.type != nullptr) {
            long type = static_cast<long>(display.atom(options_.type));
            XChangeProperty(d, window_, display.atom("_NET_WM_WINDOW_TYPE"), XA_ATOM, 32,
                            PropModeReplace, reinterpret_cast<unsigned char*>(&type), 1);
        }
        if (options_.transientFor != None) {
            XSetTransientForHint(d, window_, options_.transientFor);
        }
        gc_ = XCreateGC(d, window_, 0, nullptr);
        map();
    }

    ~X11TestWindow() { close(); }
    X11TestWindow(const X11TestWindow&) = delete;
    X11TestWindow& operator=(const X11TestWindow&) = delete;

    Window id() const { return window_; }
    const X11TestWindowOptions& options() const { return options_; }

    void setTitle(const std::string& title) {
        Display* d = display_.get();
        XChangeProperty(d, window_, display_.atom("_NET_WM_NAME"), display_.atom("UTF8_STRING"), 8,
                        PropModeReplace, reinterpret_cast<const unsigned char*>(title.data()),
                        static_cast<int>(title.size()));
        XStoreName(d, window_, title.c_str());
        XSync(d, False);
    }

    // Maps the window and waits until it is on screen (and managed, when not a pop-up).
    // A window manager that is still starting may have announced itself before it takes over
    // map requests; a window mapped in that gap stays unmanaged, so it is mapped again.
    void map() {
        for (int attempt = 0; attempt < 5; ++attempt) {
            XMapRaised(display_.get(), window_);
            XSync(display_.get(), False);
            if (eventually([&] { return viewable() && (options_.overrideRedirect || managed()); },
                           std::chrono::seconds(1))) {
                fill(options_.colour);
                return;
            }
            XUnmapWindow(display_.get(), window_);
            XSync(display_.get(), False);
        }
        throw std::runtime_error("the test window did not appear");
    }

    void iconify() {
        XIconifyWindow(display_.get(), window_, DefaultScreen(display_.get()));
        XSync(display_.get(), False);
    }

    bool viewable() const {
        XWindowAttributes attributes;
        return XGetWindowAttributes(display_.get(), window_, &attributes) &&
               attributes.map_state == IsViewable;
    }

    // The window manager put WM_STATE on it.
    bool managed() const {
        Atom type = None;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char* data = nullptr;
        XGetWindowProperty(display_.get(), window_, display_.atom("WM_STATE"), 0, 2, False,
                           AnyPropertyType, &type, &format, &count, &after, &data);
        if (data != nullptr) {
            XFree(data);
        }
        return type != None;
    }

    void fill(std::uint32_t colour) { fillRect(0, 0, options_.width, options_.height, colour); }

    void fillRect(int x, int y, int width, int height, std::uint32_t colour) {
        XSetForeground(display_.get(), gc_, colour);
        XFillRectangle(display_.get(), window_, gc_, x, y, width, height);
        XSync(display_.get(), False);
    }

    // Moves the window (through the window manager when it is managed).
    void moveTo(int x, int y) {
        XMoveWindow(display_.get(), window_, x, y);
        XSync(display_.get(), False);
    }

    void close() {
        if (window_ == None) {
            return;
        }
        XFreeGC(display_.get(), gc_);
        XDestroyWindow(display_.get(), window_);
        XSync(display_.get(), False);
        window_ = None;
    }

  private:
    X11TestDisplay& display_;
    X11TestWindowOptions options_;
    Window window_ = None;
    GC gc_ = nullptr;
};

}  // namespace pavix::test
