#include "linux/X11WindowFrames.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xrandr.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>

#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"

namespace pavix {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long the window manager has to answer one request. A manager answers a request that
// changes the window within a few milliseconds; one that changes nothing may get no answer at
// all, and the limit bounds the wait for it.
constexpr milliseconds kAnswerTime{500};
// The extra moment given after an answer that is not yet the wanted frame: a manager may apply
// the size hints or the application may ask for another size just after the first change.
constexpr milliseconds kSettleTime{50};
// How far a frame may be from the wanted one, in points, and still count as reached.
constexpr double kTolerance = 2.0;

// Who asks, in the window manager's messages: a tool acting for the user, not the application.
constexpr long kSourceUser = 2;
// The bits of the first item of a _NET_MOVERESIZE_WINDOW message: which of x, y, width and
// height it carries, and (from bit 12) who asks.
constexpr long kMoveResizeX = 1L << 8, kMoveResizeY = 1L << 9, kMoveResizeWidth = 1L << 10,
               kMoveResizeHeight = 1L << 11, kMoveResizeSource = kSourceUser << 12;
constexpr long kStateRemove = 0;  // the action of a _NET_WM_STATE message

// The largest size and the extent of positions the protocol carries.
constexpr long kMaxSize = 32767, kMinPosition = -32768, kMaxPosition = 32767;

// The window manager's decorations around a client window, in points on each side.
struct Extents {
    int left = 0, right = 0, top = 0, bottom = 0;
};

// What the server reports of a client window: its outer frame, and the parts that make it up.
struct Placement {
    CaptureRect frame;
    Extents extents;
    int border = 0;
};

WindowSize sizeOf(const Placement& placement) {
    return {placement.frame.width, placement.frame.height};
}

bool placedAt(const Placement& placement, const CaptureRect& wanted) {
    return std::abs(placement.frame.x - wanted.x) <= kTolerance &&
           std::abs(placement.frame.y - wanted.y) <= kTolerance;
}

bool sizedTo(const Placement& placement, const CaptureRect& wanted) {
    return WindowSizing::close(sizeOf(placement), {wanted.width, wanted.height}, kTolerance);
}

// Frees what Xlib allocated.
struct XFreeDeleter {
    void operator()(void* data) const {
        if (data != nullptr) {
            XFree(data);
        }
    }
};

struct MonitorsDeleter {
    void operator()(XRRMonitorInfo* monitors) const {
        if (monitors != nullptr) {
            XRRFreeMonitors(monitors);
        }
    }
};

// The children of a window, bottom first; empty when the window is gone.
class Children {
  public:
    Children(Display* display, Window window) {
        Window root = None, parent = None, *children = nullptr;
        unsigned int count = 0;
        if (XQueryTree(display, window, &root, &parent, &children, &count)) {
            children_.reset(children);
            count_ = children != nullptr ? count : 0;
        }
    }
    const Window* begin() const { return children_.get(); }
    const Window* end() const { return children_.get() + count_; }

  private:
    std::unique_ptr<Window, XFreeDeleter> children_;
    unsigned int count_ = 0;
};

// Lets the connection receive the notifications about a window (another client's) while it
// exists, and stops them afterwards, so that events of one call do not pile up for the next.
class EventSelection {
  public:
    EventSelection(Display* display, Window window, long mask)
        : display_(display), window_(window) {
        XSelectInput(display_, window_, mask);
    }
    // Owners keep an X11ErrorTrap that outlives this: the window may be gone by now.
    ~EventSelection() { XSelectInput(display_, window_, NoEventMask); }
    EventSelection(const EventSelection&) = delete;
    EventSelection& operator=(const EventSelection&) = delete;

  private:
    Display* display_;
    Window window_;
};

// A window that can be a client's: not None, not the root.
std::optional<Window> clientOf(X11Display& display, std::uint32_t windowID) {
    const auto window = static_cast<Window>(windowID);
    if (window == None || window == display.root()) {
        return std::nullopt;
    }
    return window;
}

Extents extentsOf(X11Display& display, Window window) {
    // Unmanaged windows (no window manager, or one without the property) have no decorations.
    const auto values = X11Properties::items(display, window, "_NET_FRAME_EXTENTS");
    if (values.size() < 4) {
        return {};
    }
    const auto side = [](unsigned long value) {
        return static_cast<int>(std::min<unsigned long>(value, kMaxSize));
    };
    return {side(values[0]), side(values[1]), side(values[2]), side(values[3])};
}

// The window as the server has it now; none when it is gone.
std::optional<Placement> read(X11Display& display, Window window) {
    Window root = None;
    int x = 0, y = 0;
    unsigned int width = 0, height = 0, border = 0, depth = 0;
    if (!XGetGeometry(display.get(), window, &root, &x, &y, &width, &height, &border, &depth)) {
        return std::nullopt;
    }
    // The geometry is relative to the parent, which is the window manager's frame for a managed
    // window: the place on the root is asked for separately. It is the corner inside the border.
    int rootX = 0, rootY = 0;
    Window child = None;
    if (!XTranslateCoordinates(display.get(), window, root, 0, 0, &rootX, &rootY, &child)) {
        return std::nullopt;
    }
    Placement placement;
    placement.extents = extentsOf(display, window);
    placement.border = static_cast<int>(border);
    const auto& e = placement.extents;
    const int b = placement.border;
    placement.frame = {double(rootX - b - e.left), double(rootY - b - e.top),
                       double(int(width) + 2 * b + e.left + e.right),
                       double(int(height) + 2 * b + e.top + e.bottom)};
    return placement;
}

bool hasState(X11Display& display, Window window, std::initializer_list<const char*> states) {
    const auto current = X11Properties::items(display, window, "_NET_WM_STATE");
    return std::any_of(states.begin(), states.end(), [&](const char* state) {
        return std::find(current.begin(), current.end(), display.atom(state)) != current.end();
    });
}

bool maximized(X11Display& display, Window window) {
    return hasState(display, window,
                    {"_NET_WM_STATE_MAXIMIZED_VERT", "_NET_WM_STATE_MAXIMIZED_HORZ"});
}

// Whether a running window manager announces `atom`. A manager that ended leaves its root
// properties behind, so the announcement only counts while the window it names as its own
// (_NET_SUPPORTING_WM_CHECK) still exists and names itself.
bool managerSupports(X11Display& display, const char* atom) {
    const auto check = X11Properties::cardinal(display, display.root(), "_NET_SUPPORTING_WM_CHECK");
    if (!check || *check == None ||
        X11Properties::cardinal(display, *check, "_NET_SUPPORTING_WM_CHECK") != check) {
        return false;
    }
    const auto supported = X11Properties::items(display, display.root(), "_NET_SUPPORTED");
    return std::find(supported.begin(), supported.end(), display.atom(atom)) != supported.end();
}

void sendToManager(X11Display& display, Window window, const char* type,
                   std::initializer_list<long> data) {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = display.atom(type);
    event.xclient.format = 32;
    std::copy(data.begin(), data.end(), event.xclient.data.l);
    XSendEvent(display.get(), display.root(), False,
               SubstructureRedirectMask | SubstructureNotifyMask, &event);
    XFlush(display.get());
}

// Asks for the parts of `wanted` that `mask` names (CWX, CWY, CWWidth, CWHeight): the frame's
// corner, and its size less the decorations (and the client's border) `now` has around it.
void request(X11Display& display, Window window, const Placement& now, const CaptureRect& wanted,
             unsigned int mask, bool throughManager) {
    const auto& e = now.extents;
    // Clamped before rounding: a double beyond the range of long has no rounding.
    const auto whole = [](double value, long low, long high) {
        return std::lround(std::clamp(value, double(low), double(high)));
    };
    const long width = std::clamp(
        whole(wanted.width, 0, kMaxSize) - e.left - e.right - 2 * now.border, 1L, kMaxSize);
    const long height = std::clamp(
        whole(wanted.height, 0, kMaxSize) - e.top - e.bottom - 2 * now.border, 1L, kMaxSize);
    const long x = whole(wanted.x, kMinPosition, kMaxPosition);
    const long y = whole(wanted.y, kMinPosition, kMaxPosition);
    if (throughManager) {
        // North-west gravity: x and y are where the frame's outer corner goes, whatever gravity
        // the window's own size hints name; a resize alone keeps that corner where it is.
        long flags = NorthWestGravity | kMoveResizeSource;
        flags |= (mask & CWX) ? kMoveResizeX : 0;
        flags |= (mask & CWY) ? kMoveResizeY : 0;
        flags |= (mask & CWWidth) ? kMoveResizeWidth : 0;
        flags |= (mask & CWHeight) ? kMoveResizeHeight : 0;
        sendToManager(display, window, "_NET_MOVERESIZE_WINDOW", {flags, x, y, width, height});
        return;
    }
    // Without the message, a configure request: the manager (if any) reads x and y by the
    // window's gravity, the north-west corner for nearly every window. One that reads them
    // otherwise leaves the frame off by a fixed amount, which the position step corrects.
    XWindowChanges changes{};
    changes.x = static_cast<int>(x);
    changes.y = static_cast<int>(y);
    changes.width = static_cast<int>(width);
    changes.height = static_cast<int>(height);
    XConfigureWindow(display.get(), window, mask, &changes);
    XFlush(display.get());
}

// Tests `done` again each time the server reports something about `window` (the connection
// selected its structure and property changes), until it holds or `timeout` passes.
bool await(X11Display& display, Window window, const std::function<bool()>& done,
           milliseconds timeout) {
    Display* d = display.get();
    const auto deadline = Clock::now() + timeout;
    XFlush(d);
    while (!done()) {
        bool reported = false;
        while (!reported) {
            // Round trips of `done` may have queued events already; XPending looks there first.
            while (!reported && XPending(d) > 0) {
                XEvent event;
                XNextEvent(d, &event);
                reported = event.xany.window == window;
            }
            if (reported) {
                break;
            }
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) {
                return false;
            }
            pollfd input{display.fd(), POLLIN, 0};
            poll(&input, 1, static_cast<int>(left));
        }
    }
    return true;
}

void discardEvents(X11Display& display) {
    while (XPending(display.get()) > 0) {
        XEvent event;
        XNextEvent(display.get(), &event);
    }
}

// Whether two readings have the same size and the same decorations.
bool sameShape(const Placement& a, const Placement& b) {
    return a.frame.width == b.frame.width && a.frame.height == b.frame.height &&
           a.border == b.border && a.extents.left == b.extents.left &&
           a.extents.right == b.extents.right && a.extents.top == b.extents.top &&
           a.extents.bottom == b.extents.bottom;
}

bool sameDecorations(const Placement& a, const Placement& b) {
    return a.border == b.border &&
           a.extents.left + a.extents.right == b.extents.left + b.extents.right &&
           a.extents.top + a.extents.bottom == b.extents.top + b.extents.bottom;
}

// One resize step: asks for the size, waits for the manager's answer, and when the answer is
// not the size yet, gives it a moment more. The window as read last; none when it is gone.
std::optional<Placement> resize(X11Display& display, Window window, const Placement& before,
                                const CaptureRect& wanted, bool throughManager) {
    std::optional<Placement> now = before;
    // The client's size is the frame's less the decorations of the last reading. When they
    // changed while the request was under way, it is asked again with the new ones.
    for (int attempt = 0; attempt < 2; ++attempt) {
        const Placement asked = *now;
        request(display, window, asked, wanted, CWWidth | CWHeight, throughManager);
        await(
            display, window,
            [&] {
                now = read(display, window);
                return !now || sizedTo(*now, wanted) || !sameShape(*now, asked);
            },
            kAnswerTime);
        if (!now || sizedTo(*now, wanted) || sameDecorations(*now, asked)) {
            break;
        }
    }
    if (now && !sizedTo(*now, wanted)) {
        await(
            display, window,
            [&] {
                now = read(display, window);
                return !now || sizedTo(*now, wanted);
            },
            kSettleTime);
    }
    return now;
}

// The reserved band along one edge of the root window that a dock or panel keeps to itself.
struct Strut {
    enum class Edge { left, right, top, bottom } edge;
    CaptureRect area;
};

// The struts of one window, from _NET_WM_STRUT_PARTIAL or else _NET_WM_STRUT. Both are
// measured from the edges of the root window, not of a monitor.
std::vector<Strut> strutsOf(X11Display& display, Window window, double rootWidth,
                            double rootHeight) {
    auto values = X11Properties::items(display, window, "_NET_WM_STRUT_PARTIAL");
    if (values.size() < 12) {
        values = X11Properties::items(display, window, "_NET_WM_STRUT");
        if (values.size() < 4) {
            return {};
        }
        // The whole of each edge.
        const auto w = static_cast<unsigned long>(rootWidth) - 1;
        const auto h = static_cast<unsigned long>(rootHeight) - 1;
        values = {values[0], values[1], values[2], values[3], 0, h, 0, h, 0, w, 0, w};
    }
    const auto value = [&](int i) { return static_cast<double>(values[i]); };
    // The start and end of each band are inclusive; a band that ends before it starts is
    // ignored.
    const auto span = [&](int start) { return value(start + 1) - value(start) + 1; };
    std::vector<Strut> struts;
    const auto add = [&](Strut::Edge edge, double thickness, int start, CaptureRect area) {
        if (thickness > 0 && span(start) > 0) {
            struts.push_back({edge, area});
        }
    };
    add(Strut::Edge::left, value(0), 4, {0, value(4), value(0), span(4)});
    add(Strut::Edge::right, value(1), 6, {rootWidth - value(1), value(6), value(1), span(6)});
    add(Strut::Edge::top, value(2), 8, {value(8), 0, span(8), value(2)});
    add(Strut::Edge::bottom, value(3), 10, {value(10), rootHeight - value(3), span(10), value(3)});
    return struts;
}

// The struts of every mapped window that has one. The windows looked at are the manager's
// clients (a managed dock sits inside the manager's frame, out of the root's children) and the
// children of the root (the windows themselves when no manager runs). Each costs one round trip
// to list its properties; only a window with a strut is read further.
std::vector<Strut> struts(X11Display& display, double rootWidth, double rootHeight) {
    std::vector<Window> candidates;
    for (unsigned long client : X11Properties::items(display, display.root(), "_NET_CLIENT_LIST")) {
        candidates.push_back(static_cast<Window>(client));
    }
    for (Window child : Children(display.get(), display.root())) {
        candidates.push_back(child);
    }
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());

    const Atom partial = display.atom("_NET_WM_STRUT_PARTIAL");
    const Atom plain = display.atom("_NET_WM_STRUT");
    std::vector<Strut> all;
    for (Window window : candidates) {
        int count = 0;
        std::unique_ptr<Atom, XFreeDeleter> properties(
            XListProperties(display.get(), window, &count));
        const Atom* begin = properties.get();
        const Atom* end = begin != nullptr ? begin + count : begin;
        if (std::none_of(begin, end, [&](Atom atom) { return atom == partial || atom == plain; })) {
            continue;
        }
        // A hidden panel (unmapped, or iconified with its frame) reserves nothing.
        XWindowAttributes attributes;
        if (!XGetWindowAttributes(display.get(), window, &attributes) ||
            attributes.map_state != IsViewable) {
            continue;
        }
        const auto found = strutsOf(display, window, rootWidth, rootHeight);
        all.insert(all.end(), found.begin(), found.end());
    }
    return all;
}

// The part of `monitor` the struts leave: each strut that reaches into the monitor pushes the
// edge it belongs to. A strut only names an edge of the root, so a panel at an inner edge
// between two monitors reserves everything from the root's edge to the panel; the monitor it
// covers entirely keeps its whole frame rather than nothing.
CaptureRect visiblePart(const CaptureRect& monitor, const std::vector<Strut>& struts) {
    double left = monitor.x, top = monitor.y, right = monitor.maxX(), bottom = monitor.maxY();
    for (const auto& strut : struts) {
        if (strut.area.intersection(monitor).empty()) {
            continue;
        }
        switch (strut.edge) {
            case Strut::Edge::left:
                left = std::max(left, strut.area.maxX());
                break;
            case Strut::Edge::right:
                right = std::min(right, strut.area.x);
                break;
            case Strut::Edge::top:
                top = std::max(top, strut.area.maxY());
                break;
            case Strut::Edge::bottom:
                bottom = std::min(bottom, strut.area.y);
                break;
        }
    }
    if (right <= left || bottom <= top) {
        return monitor;
    }
    return {left, top, right - left, bottom - top};
}

// The window manager's work area of the current desktop, when it publishes one.
std::optional<CaptureRect> workArea(X11Display& display) {
    const auto values = X11Properties::items(display, display.root(), "_NET_WORKAREA");
    std::size_t desktop =
        X11Properties::cardinal(display, display.root(), "_NET_CURRENT_DESKTOP").value_or(0);
    if (values.size() < 4 * (desktop + 1)) {
        desktop = 0;
    }
    if (values.size() < 4) {
        return std::nullopt;
    }
    const auto value = [&](std::size_t i) { return static_cast<double>(values[4 * desktop + i]); };
    return CaptureRect{value(0), value(1), value(2), value(3)};
}

CaptureRect rootFrame(X11Display& display) {
    // The size the connection learnt when it opened is stale once the screen was resized.
    Window root = None;
    int x = 0, y = 0;
    unsigned int width = 0, height = 0, border = 0, depth = 0;
    if (!XGetGeometry(display.get(), display.root(), &root, &x, &y, &width, &height, &border,
                      &depth)) {
        return {0, 0, double(display.screenWidth()), double(display.screenHeight())};
    }
    return {0, 0, double(width), double(height)};
}

}  // namespace

X11WindowFrames::X11WindowFrames(const std::string& displayName) : display_(displayName) {
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    monitorsListed_ = XRRQueryExtension(display_.get(), &eventBase, &errorBase) &&
                      XRRQueryVersion(display_.get(), &major, &minor) && major * 100 + minor >= 105;
}

std::vector<ScreenFrame> X11WindowFrames::screens() {
    std::lock_guard lock(mutex_);
    X11ErrorTrap trap(display_.get());
    const auto root = rootFrame(display_);

    // The RandR monitors: several on one X screen (side by side, or one screen split by hand)
    // are several screens. Without RandR 1.5 the root is the one screen.
    std::vector<CaptureRect> monitors;
    if (monitorsListed_) {
        int count = 0;
        std::unique_ptr<XRRMonitorInfo, MonitorsDeleter> list(
            XRRGetMonitors(display_.get(), display_.root(), True, &count));
        for (int i = 0; list && i < count; ++i) {
            const auto& monitor = list.get()[i];
            if (monitor.width > 0 && monitor.height > 0) {
                monitors.push_back({double(monitor.x), double(monitor.y), double(monitor.width),
                                    double(monitor.height)});
            }
        }
    }
    if (monitors.empty()) {
        monitors.push_back(root);
    }

    // The usable part of each monitor comes from the struts of the docks and panels, not from
    // _NET_WORKAREA: the work area is one rectangle for the whole desktop, so with monitors of
    // different sizes, or a panel on one of them only, it takes from every monitor what the
    // panel takes from one. Only when no window has a strut, the work area is the one account
    // of room the manager keeps for itself (margins, a built-in panel), and each monitor is
    // intersected with it.
    const auto reserved = struts(display_, root.width, root.height);
    const auto area = reserved.empty() ? workArea(display_) : std::nullopt;
    std::vector<ScreenFrame> screens;
    for (const auto& monitor : monitors) {
        CaptureRect visible = monitor;
        if (!reserved.empty()) {
            visible = visiblePart(monitor, reserved);
        } else if (area && !area->intersection(monitor).empty()) {
            visible = area->intersection(monitor);
        }
        screens.push_back({monitor, visible});
    }
    return screens;
}

std::optional<CaptureRect> X11WindowFrames::frame(std::uint32_t windowID) {
    std::lock_guard lock(mutex_);
    X11ErrorTrap trap(display_.get());
    const auto window = clientOf(display_, windowID);
    if (!window) {
        return std::nullopt;
    }
    const auto placement = read(display_, *window);
    if (!placement) {
        return std::nullopt;
    }
    return placement->frame;
}

FrameInsets X11WindowFrames::decorations(std::uint32_t windowID) {
    std::lock_guard lock(mutex_);
    X11ErrorTrap trap(display_.get());
    const auto window = clientOf(display_, windowID);
    const auto placement = window ? read(display_, *window) : std::nullopt;
    if (!placement) {
        return {};
    }
    // A recording of the window is of the client, inside its border.
    const auto& e = placement->extents;
    const double b = placement->border;
    return {e.left + b, e.top + b, e.right + b, e.bottom + b};
}

bool X11WindowFrames::resizable(std::uint32_t windowID) {
    std::lock_guard lock(mutex_);
    X11ErrorTrap trap(display_.get());
    const auto window = clientOf(display_, windowID);
    if (!window || !read(display_, *window)) {
        return false;
    }
    if (hasState(display_, *window, {"_NET_WM_STATE_FULLSCREEN"})) {
        return false;
    }
    // A window whose smallest and largest sizes are the same has one size only.
    std::unique_ptr<XSizeHints, XFreeDeleter> hints(XAllocSizeHints());
    long supplied = 0;
    if (hints && XGetWMNormalHints(display_.get(), *window, hints.get(), &supplied) &&
        (hints->flags & PMinSize) && (hints->flags & PMaxSize) &&
        hints->min_width == hints->max_width && hints->min_height == hints->max_height) {
        return false;
    }
    // Not when it went while it was being read.
    return trap.sync() == Success;
}

std::optional<CaptureRect> X11WindowFrames::setFrame(std::uint32_t windowID,
                                                     const CaptureRect& wanted) {
    std::lock_guard lock(mutex_);
    X11ErrorTrap trap(display_.get());
    const auto id = clientOf(display_, windowID);
    if (!id) {
        return std::nullopt;
    }
    const Window window = *id;
    discardEvents(display_);
    auto now = read(display_, window);
    if (!now) {
        return std::nullopt;
    }
    const bool finite = std::isfinite(wanted.x) && std::isfinite(wanted.y) &&
                        std::isfinite(wanted.width) && std::isfinite(wanted.height);
    if (!finite || wanted.width < 1 || wanted.height < 1) {
        return now->frame;  // nothing sensible to ask for: the window stays as it is
    }
    // The server reports the manager's changes to the frame (a synthetic ConfigureNotify for a
    // move of the frame, a real one for a resize of the client) and to the window's properties.
    EventSelection selection(display_.get(), window, StructureNotifyMask | PropertyChangeMask);
    // Only a window the manager manages (it put WM_STATE on it) is moved by the manager's
    // message; any other one (a pop-up placed by its application) is ignored by the manager and
    // configured by the server directly.
    const bool throughManager = X11Properties::has(display_, window, "WM_STATE") &&
                                managerSupports(display_, "_NET_MOVERESIZE_WINDOW");

    // A maximised window keeps the size of its monitor whatever is asked: it is restored first
    // (to the size it had before, which the resize below replaces).
    if (maximized(display_, window)) {
        sendToManager(display_, window, "_NET_WM_STATE",
                      {kStateRemove, long(display_.atom("_NET_WM_STATE_MAXIMIZED_VERT")),
                       long(display_.atom("_NET_WM_STATE_MAXIMIZED_HORZ")), kSourceUser});
        // The manager announces the state before it gives the frame back its size and its
        // borders: all three are waited for.
        const Placement whole = *now;
        await(
            display_, window,
            [&] {
                now = read(display_, window);
                return !now || (!maximized(display_, window) && !sameShape(*now, whole));
            },
            kAnswerTime);
        if (!now) {
            return std::nullopt;
        }
    }

    // The size first: a manager keeps a window on its screen, so moving a large window towards
    // a corner before it is smaller can be refused or cut short. `answer` is what the manager
    // made of it; none when it changed nothing.
    std::optional<Placement> answer;
    if (!sizedTo(*now, wanted)) {
        const Placement before = *now;
        now = resize(display_, window, *now, wanted, throughManager);
        if (!now) {
            return std::nullopt;
        }
        if (!sameShape(*now, before)) {
            answer = *now;
        }
    }

    // Then the position, asked again once when the frame landed elsewhere: by the offset seen,
    // which covers a manager that places the frame by another reference point than asked.
    CaptureRect asked = wanted;
    for (int attempt = 0; attempt < 2 && !placedAt(*now, wanted); ++attempt) {
        const CaptureRect before = now->frame;
        request(display_, window, *now, asked, CWX | CWY, throughManager);
        await(
            display_, window,
            [&] {
                now = read(display_, window);
                return !now || placedAt(*now, wanted) || now->frame.x != before.x ||
                       now->frame.y != before.y;
            },
            kAnswerTime);
        if (!now) {
            return std::nullopt;
        }
        // A manager that did not answer yet is asked the same again.
        if (now->frame.x != before.x || now->frame.y != before.y) {
            asked.x += wanted.x - now->frame.x;
            asked.y += wanted.y - now->frame.y;
        }
    }

    // The size once more when it or the decorations changed since the manager's answer (a move
    // onto another monitor, a manager that keeps windows inside the screen, borders that came
    // late), or when there was no answer. An answer that still stands is the manager's final
    // word (the application's limits): asked the same again, a manager that changes nothing
    // need not answer at all.
    if (!sizedTo(*now, wanted) && (!answer || !sameShape(*now, *answer))) {
        now = resize(display_, window, *now, wanted, throughManager);
        if (!now) {
            return std::nullopt;
        }
    }
    return now->frame;
}

}  // namespace pavix
