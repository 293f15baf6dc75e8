#include "linux/X11DesktopInput.h"

#include <X11/extensions/XTest.h>
#include <X11/extensions/shape.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "core/control/InputError.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"

namespace pavix {
namespace {

using std::chrono::milliseconds;

// The pauses of a hand between the events of a click: some toolkits drop a press that comes
// in the same instant as the motion that brought the pointer there.
constexpr milliseconds kAfterMove{30};
constexpr milliseconds kAfterButton{50};

int whole(double v) {
    return static_cast<int>(std::lround(v));
}

// Whether the window takes input at root point (x, y): inside its frame and inside its input
// shape. A compositor's overlay covers the screen but takes no input, and neither do the
// transparent parts of a shaped window.
bool takesInputAt(Display* dpy, Window window, int x, int y) {
    XWindowAttributes a{};
    if (!XGetWindowAttributes(dpy, window, &a) || a.map_state != IsViewable ||
        a.c_class != InputOutput) {
        return false;
    }
    const int left = a.x, top = a.y;
    const int width = a.width + 2 * a.border_width, height = a.height + 2 * a.border_width;
    if (x < left || y < top || x >= left + width || y >= top + height) {
        return false;
    }
    int count = 0, ordering = 0;
    XRectangle* rects = XShapeGetRectangles(dpy, window, ShapeInput, &count, &ordering);
    if (!rects) {
        return false;  // an empty input region: input passes through
    }
    bool inside = false;
    for (int i = 0; i < count && !inside; ++i) {
        const auto& r = rects[i];
        const int rx = left + a.border_width + r.x, ry = top + a.border_width + r.y;
        inside = x >= rx && y >= ry && x < rx + r.width && y < ry + r.height;
    }
    XFree(rects);
    return inside;
}

}  // namespace

X11DesktopInput::~X11DesktopInput() {
    keyboard_.reset();  // gives back a borrowed key while the connection is still open
}

X11Display& X11DesktopInput::display() {
    if (!display_) {
        display_ = std::make_unique<X11Display>();
        keyboard_ = std::make_unique<X11Keyboard>(*display_);
    }
    return *display_;
}

// The process of the application window at or below `window`, by _NET_WM_PID.
std::optional<pid_t> X11DesktopInput::pidOf(Window window) {
    auto& d = display();
    for (Window candidate : {window, X11Properties::clientWindow(d, window)}) {
        if (candidate == None) {
            continue;
        }
        if (auto pid = X11Properties::cardinal(d, candidate, "_NET_WM_PID")) {
            return static_cast<pid_t>(*pid);
        }
    }
    return std::nullopt;
}

std::optional<pid_t> X11DesktopInput::ownerAt(ScreenPoint point) {
    auto& d = display();
    X11ErrorTrap trap(d.get());
    Window root = 0, parent = 0, *children = nullptr;
    unsigned count = 0;
    if (!XQueryTree(d.get(), d.root(), &root, &parent, &children, &count)) {
        return std::nullopt;
    }
    std::unique_ptr<Window, int (*)(void*)> owned(children, XFree);
    // Top-most first: the first child of the root that takes input there decides.
    for (unsigned i = count; i-- > 0;) {
        if (takesInputAt(d.get(), children[i], whole(point.x), whole(point.y))) {
            return pidOf(children[i]);
        }
    }
    return std::nullopt;
}

ScreenPoint X11DesktopInput::pointer() {
    auto& d = display();
    Window root = 0, child = 0;
    int x = 0, y = 0, wx = 0, wy = 0;
    unsigned mask = 0;
    XQueryPointer(d.get(), d.root(), &root, &child, &x, &y, &wx, &wy, &mask);
    return {double(x), double(y)};
}

void X11DesktopInput::moveTo(ScreenPoint point) {
    auto& d = display();
    XTestFakeMotionEvent(d.get(), -1, whole(point.x), whole(point.y), CurrentTime);
    XSync(d.get(), False);
}

void X11DesktopInput::button(ScreenPoint point, unsigned number, int times) {
    auto& d = display();
    const auto before = pointer();
    moveTo(point);
    std::this_thread::sleep_for(kAfterMove);
    for (int i = 0; i < times; ++i) {
        XTestFakeButtonEvent(d.get(), number, True, CurrentTime);
        XSync(d.get(), False);
        std::this_thread::sleep_for(kAfterButton);
        XTestFakeButtonEvent(d.get(), number, False, CurrentTime);
        XSync(d.get(), False);
        std::this_thread::sleep_for(kAfterButton);
    }
    // The user's pointer goes back where it was, without a motion event for the application.
    XWarpPointer(d.get(), None, d.root(), 0, 0, 0, 0, whole(before.x), whole(before.y));
    XSync(d.get(), False);
}

void X11DesktopInput::click(ScreenPoint point, int count) {
    button(point, Button1, count);
}

void X11DesktopInput::scroll(ScreenPoint point, ScrollDirection direction, int steps) {
    // The wheel is buttons 4 (up), 5 (down), 6 (left) and 7 (right).
    const unsigned number = direction == ScrollDirection::up     ? 4
                            : direction == ScrollDirection::down ? 5
                            : direction == ScrollDirection::left ? 6
                                                                 : 7;
    button(point, number, steps);
}

void X11DesktopInput::press(const KeyChord& chord) {
    display();
    keyboard_->press(chord);
}

void X11DesktopInput::type(char32_t character) {
    display();
    keyboard_->type(character);
}

std::optional<pid_t> X11DesktopInput::focusedOwner() {
    auto& d = display();
    X11ErrorTrap trap(d.get());
    auto active = X11Properties::items(d, d.root(), "_NET_ACTIVE_WINDOW");
    if (!active.empty() && active[0] != None) {
        if (auto pid = pidOf(active[0])) {
            return pid;
        }
    }
    Window focus = None;
    int revert = 0;
    XGetInputFocus(d.get(), &focus, &revert);
    if (focus == None || focus == PointerRoot) {
        return std::nullopt;
    }
    return pidOf(X11Properties::topLevel(d, focus));
}

std::optional<std::uint32_t> X11DesktopInput::activeWindow() {
    auto& d = display();
    X11ErrorTrap trap(d.get());
    auto active = X11Properties::items(d, d.root(), "_NET_ACTIVE_WINDOW");
    if (active.empty() || active[0] == None) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(active[0]);
}

bool X11DesktopInput::activate(std::uint32_t windowID) {
    auto& d = display();
    X11ErrorTrap trap(d.get());
    // Asked of the window manager as a pager would (source 2), which it honours even when the
    // request carries no user time.
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = windowID;
    event.xclient.message_type = d.atom("_NET_ACTIVE_WINDOW");
    event.xclient.format = 32;
    event.xclient.data.l[0] = 2;
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(d.get(), d.root(), False, SubstructureRedirectMask | SubstructureNotifyMask, &event);
    return trap.sync() == 0;
}

}  // namespace pavix
