#include "DemoWindow.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace pavix::demo {
namespace {

constexpr int kSquare = 80;
constexpr int kStripe = 40;

// Where something moving at `speed` pixels per second between 0 and `range` is after
// `seconds`, bouncing at both ends; `bounces` counts the ends it hit.
int bounce(double seconds, double speed, int range, long& bounces) {
    if (range <= 0) {
        bounces = 0;
        return 0;
    }
    double travelled = seconds * speed;
    bounces = static_cast<long>(travelled / range);
    double position = std::fmod(travelled, 2.0 * range);
    if (position > range) {
        position = 2.0 * range - position;
    }
    return static_cast<int>(position);
}

}  // namespace

DemoWindow::DemoWindow(const DemoOptions& options)
    : display_(XOpenDisplay(nullptr)),
      width_(options.width),
      height_(options.height),
      title_(options.title) {
    if (display_ == nullptr) {
        throw std::runtime_error("cannot open the X display named by DISPLAY");
    }
    background_ = colour("#202830", BlackPixel(display_, DefaultScreen(display_)));
    foreground_ = colour("#f0f0f0", WhitePixel(display_, DefaultScreen(display_)));
    stripe_ = colour("#3070d0", foreground_);
    bar_ = colour("#40b060", foreground_);
    for (const char* name : {"#e04040", "#e0a020", "#40c040", "#40a0e0", "#a050e0"}) {
        squareColours_.push_back(colour(name, foreground_));
    }

    XSetWindowAttributes attributes{};
    // No background: the server would clear exposed parts to it before the copy from the
    // buffer arrives, which shows as flicker while the window is moved or uncovered.
    attributes.background_pixmap = None;
    attributes.event_mask = ExposureMask | StructureNotifyMask;
    window_ = XCreateWindow(display_, DefaultRootWindow(display_), 0, 0, width_, height_, 0,
                            CopyFromParent, InputOutput, CopyFromParent, CWBackPixmap | CWEventMask,
                            &attributes);
    gc_ = XCreateGC(display_, window_, 0, nullptr);
    buffer_ = XCreatePixmap(display_, window_, width_, height_,
                            DefaultDepth(display_, DefaultScreen(display_)));
    setProperties(options);
    draw(std::chrono::nanoseconds(0), 0);
    XMapWindow(display_, window_);
    XSync(display_, False);
}

DemoWindow::~DemoWindow() {
    XFreePixmap(display_, buffer_);
    XFreeGC(display_, gc_);
    XDestroyWindow(display_, window_);
    XCloseDisplay(display_);
}

unsigned long DemoWindow::colour(const char* name, unsigned long fallback) {
    XColor exact{}, screen{};
    Colormap map = DefaultColormap(display_, DefaultScreen(display_));
    if (!XAllocNamedColor(display_, map, name, &screen, &exact)) {
        return fallback;
    }
    return screen.pixel;
}

void DemoWindow::setProperties(const DemoOptions& options) {
    XSizeHints* size = XAllocSizeHints();
    size->flags = PSize | PMinSize;
    size->width = options.width;
    size->height = options.height;
    size->min_width = size->min_height = 1;
    XWMHints* hints = XAllocWMHints();
    hints->flags = InputHint | StateHint;
    hints->input = True;
    hints->initial_state = NormalState;
    std::string instance = "pavix-demo-window", className = "Pavix Demo";
    XClassHint classHint{instance.data(), className.data()};
    // WM_CLASS, the hints and WM_CLIENT_MACHINE (from gethostname); the names follow.
    XSetWMProperties(display_, window_, nullptr, nullptr, nullptr, 0, size, hints, &classHint);
    XFree(size);
    XFree(hints);

    // WM_NAME is Latin-1 STRING or COMPOUND_TEXT, but Xlib converts UTF-8 only as far as the
    // current locale reaches and silently drops the other characters (an em dash in the C
    // locale; its UTF8_STRING style goes through the locale too). A title that does not convert
    // whole goes in as the UTF-8 bytes typed UTF8_STRING, which Xutf8TextPropertyToTextList
    // and today's window managers read.
    char* list[] = {title_.data()};
    XTextProperty name{};
    if (Xutf8TextListToTextProperty(display_, list, 1, XStdICCTextStyle, &name) == Success) {
        XSetWMName(display_, window_, &name);
        XSetWMIconName(display_, window_, &name);
    } else {
        Atom utf8 = XInternAtom(display_, "UTF8_STRING", False);
        for (Atom property : {XA_WM_NAME, XA_WM_ICON_NAME}) {
            XChangeProperty(display_, window_, property, utf8, 8, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(title_.data()),
                            static_cast<int>(title_.size()));
        }
    }
    if (name.value != nullptr) {
        XFree(name.value);
    }

    // Window managers and pagers of this century read the UTF-8 title.
    Atom utf8 = XInternAtom(display_, "UTF8_STRING", False);
    for (const char* name : {"_NET_WM_NAME", "_NET_WM_ICON_NAME"}) {
        XChangeProperty(display_, window_, XInternAtom(display_, name, False), utf8, 8,
                        PropModeReplace, reinterpret_cast<const unsigned char*>(title_.data()),
                        static_cast<int>(title_.size()));
    }
    long pid = static_cast<long>(getpid());
    XChangeProperty(display_, window_, XInternAtom(display_, "_NET_WM_PID", False), XA_CARDINAL, 32,
                    PropModeReplace, reinterpret_cast<unsigned char*>(&pid), 1);
    deleteWindow_ = XInternAtom(display_, "WM_DELETE_WINDOW", False);
    XSetWMProtocols(display_, window_, &deleteWindow_, 1);
}

bool DemoWindow::processEvents() {
    while (XPending(display_) > 0) {
        XEvent event;
        XNextEvent(display_, &event);
        switch (event.type) {
            case Expose:
                if (event.xexpose.count == 0) {
                    show();
                }
                break;
            case ConfigureNotify:
                resize(event.xconfigure.width, event.xconfigure.height);
                break;
            case ClientMessage:
                if (event.xclient.format == 32 &&
                    static_cast<Atom>(event.xclient.data.l[0]) == deleteWindow_) {
                    return false;
                }
                break;
            default:
                break;
        }
    }
    return true;
}

void DemoWindow::resize(int width, int height) {
    if (width == width_ && height == height_) {
        return;
    }
    width_ = width;
    height_ = height;
    XFreePixmap(display_, buffer_);
    buffer_ = XCreatePixmap(display_, window_, width_, height_,
                            DefaultDepth(display_, DefaultScreen(display_)));
    // A new pixmap holds garbage: fill it before an Expose copies it to the window.
    draw(lastElapsed_, lastFrame_);
}

void DemoWindow::draw(std::chrono::nanoseconds elapsed, std::uint64_t frame) {
    lastElapsed_ = elapsed;
    lastFrame_ = frame;
    double seconds = std::chrono::duration<double>(elapsed).count();
    XSetForeground(display_, gc_, background_);
    XFillRectangle(display_, buffer_, gc_, 0, 0, width_, height_);

    XSetForeground(display_, gc_, stripe_);
    int stripeX = static_cast<int>(std::fmod(seconds * 160.0, width_ + kStripe)) - kStripe;
    XFillRectangle(display_, buffer_, gc_, stripeX, 0, kStripe, height_);

    long bouncesX = 0, bouncesY = 0;
    int x = bounce(seconds, 230.0, width_ - kSquare, bouncesX);
    int y = bounce(seconds, 170.0, height_ - kSquare, bouncesY);
    XSetForeground(
        display_, gc_,
        squareColours_[static_cast<std::size_t>(bouncesX + bouncesY) % squareColours_.size()]);
    XFillRectangle(display_, buffer_, gc_, x, y, kSquare, kSquare);

    double second = seconds - std::floor(seconds);
    XSetForeground(display_, gc_, bar_);
    XFillRectangle(display_, buffer_, gc_, 0, height_ - 8, static_cast<int>(width_ * second), 8);

    auto total = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    char line[160];
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    int length = std::snprintf(
        line, sizeof line, "frame %llu   running %02lld:%02lld.%03lld   clock %02d:%02d:%02d",
        static_cast<unsigned long long>(frame), static_cast<long long>(total / 60000),
        static_cast<long long>(total / 1000 % 60), static_cast<long long>(total % 1000),
        local.tm_hour, local.tm_min, local.tm_sec);
    XSetForeground(display_, gc_, foreground_);
    // XDrawString draws single bytes in the server's default font, which knows no UTF-8: each
    // character beyond ASCII shows as '?' here (the title bar shows the whole title).
    std::string ascii;
    for (char c : title_) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            ascii += c;
        } else if (byte >= 0xC0) {
            ascii += '?';
        }
    }
    XDrawString(display_, buffer_, gc_, 16, 24, ascii.data(), static_cast<int>(ascii.size()));
    XDrawString(display_, buffer_, gc_, 16, 44, line, std::min(length, int(sizeof line) - 1));
    show();
}

void DemoWindow::show() {
    XCopyArea(display_, buffer_, window_, gc_, 0, 0, width_, height_, 0, 0);
    XFlush(display_);
}

}  // namespace pavix::demo
