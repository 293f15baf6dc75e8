#include "linux/X11WindowInfo.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>

#include <algorithm>

#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"

namespace pavix {

std::optional<CaptureRect> X11WindowInfo::geometry(X11Display& display, Window window) {
    X11ErrorTrap trap(display.get());
    Window root = None, child = None;
    int x = 0, y = 0, rootX = 0, rootY = 0;
    unsigned int width = 0, height = 0, border = 0, depth = 0;
    if (!XGetGeometry(display.get(), window, &root, &x, &y, &width, &height, &border, &depth)) {
        return std::nullopt;
    }
    // The window's own position is relative to the window manager's frame around it; the frame
    // is where the window sits on the screen, so the origin is translated through it.
    if (!XTranslateCoordinates(display.get(), window, root, 0, 0, &rootX, &rootY, &child)) {
        return std::nullopt;
    }
    return CaptureRect{double(rootX), double(rootY), double(width), double(height)};
}

std::optional<X11WindowInfo> X11WindowInfo::read(X11Display& display, Window window,
                                                 bool withTitle) {
    X11ErrorTrap trap(display.get());
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(display.get(), window, &attributes)) {
        return std::nullopt;
    }
    auto frame = geometry(display, window);
    if (!frame) {
        return std::nullopt;
    }
    X11WindowInfo info;
    info.id = window;
    info.viewable = attributes.map_state == IsViewable;
    info.overrideRedirect = attributes.override_redirect != 0;
    info.depth = attributes.depth;
    info.frame = *frame;
    if (withTitle) {
        info.title = X11Properties::utf8(display, window, "_NET_WM_NAME")
                         .value_or(X11Properties::text(display, window, XA_WM_NAME).value_or(""));
    }
    info.pid = static_cast<std::int32_t>(
        X11Properties::cardinal(display, window, "_NET_WM_PID").value_or(0));
    std::tie(info.instance, info.className) = X11Properties::wmClass(display, window);
    info.gtkApplicationId =
        X11Properties::utf8(display, window, "_GTK_APPLICATION_ID").value_or("");
    for (auto type : X11Properties::items(display, window, "_NET_WM_WINDOW_TYPE")) {
        info.types.push_back(static_cast<Atom>(type));
    }
    for (auto state : X11Properties::items(display, window, "_NET_WM_STATE")) {
        info.states.push_back(static_cast<Atom>(state));
    }
    Window transient = None;
    if (XGetTransientForHint(display.get(), window, &transient)) {
        info.transientFor = transient;
    }
    if (trap.sync() != 0 && !XGetWindowAttributes(display.get(), window, &attributes)) {
        return std::nullopt;  // destroyed while it was being read
    }
    return info;
}

bool X11WindowInfo::hasType(X11Display& display, const char* type) const {
    return std::find(types.begin(), types.end(), display.atom(type)) != types.end();
}

bool X11WindowInfo::hasState(X11Display& display, const char* state) const {
    return std::find(states.begin(), states.end(), display.atom(state)) != states.end();
}

}  // namespace pavix
