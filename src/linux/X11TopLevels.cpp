#include "linux/X11TopLevels.h"

#include <algorithm>

#include "linux/X11ErrorTrap.h"

namespace pavix {
namespace {

CaptureRect outer(int x, int y, int width, int height, int border) {
    return {double(x), double(y), double(width + 2 * border), double(height + 2 * border)};
}

}  // namespace

X11TopLevels::X11TopLevels(X11Display& display) : display_(display) {
    // Selected before the first read, so that nothing that happens in between is missed; a
    // notification about a window the read already saw is harmless.
    XWindowAttributes rootAttributes;
    XGetWindowAttributes(display.get(), display.root(), &rootAttributes);
    XSelectInput(display.get(), display.root(),
                 rootAttributes.your_event_mask | SubstructureNotifyMask);
    reload();
}

void X11TopLevels::reload() {
    X11ErrorTrap trap(display_.get());
    stack_.clear();
    Window root = None, parent = None, *children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(display_.get(), display_.root(), &root, &parent, &children, &count)) {
        return;
    }
    for (unsigned int i = 0; i < count; ++i) {
        XWindowAttributes a;
        // A window destroyed since the tree was read fails here and is left out.
        if (XGetWindowAttributes(display_.get(), children[i], &a)) {
            stack_.push_back({children[i], a.map_state != IsUnmapped, a.override_redirect != 0,
                              outer(a.x, a.y, a.width, a.height, a.border_width)});
        }
    }
    if (children != nullptr) {
        XFree(children);
    }
    changed_ = true;
}

std::vector<X11TopLevels::Entry>::iterator X11TopLevels::locate(Window window) {
    return std::find_if(stack_.begin(), stack_.end(),
                        [window](const Entry& entry) { return entry.window == window; });
}

const X11TopLevels::Entry* X11TopLevels::find(Window window) const {
    auto found = std::find_if(stack_.begin(), stack_.end(),
                              [window](const Entry& entry) { return entry.window == window; });
    return found == stack_.end() ? nullptr : &*found;
}

void X11TopLevels::placeAbove(Window window, Window below) {
    auto current = locate(window);
    if (current == stack_.end()) {
        return;
    }
    Entry entry = *current;
    stack_.erase(current);
    if (below == None) {
        stack_.insert(stack_.begin(), entry);
        return;
    }
    auto sibling = locate(below);
    if (sibling == stack_.end()) {
        // Out of step with the server (a sibling we never heard of): read the stack again.
        reload();
        return;
    }
    stack_.insert(sibling + 1, entry);
}

bool X11TopLevels::handle(const XEvent& event) {
    Window root = display_.root();
    switch (event.type) {
        case CreateNotify: {
            const auto& e = event.xcreatewindow;
            if (e.parent != root) {
                return false;
            }
            if (locate(e.window) == stack_.end()) {
                stack_.push_back({e.window, false, e.override_redirect != 0,
                                  outer(e.x, e.y, e.width, e.height, e.border_width)});
            }
            return true;
        }
        case DestroyNotify: {
            const auto& e = event.xdestroywindow;
            if (e.event != root) {
                return false;
            }
            auto found = locate(e.window);
            if (found != stack_.end()) {
                changed_ = changed_ || found->mapped;
                stack_.erase(found);
            }
            return true;
        }
        case MapNotify:
        case UnmapNotify: {
            Window event_window = event.type == MapNotify ? event.xmap.event : event.xunmap.event;
            Window window = event.type == MapNotify ? event.xmap.window : event.xunmap.window;
            if (event_window != root) {
                return false;
            }
            auto found = locate(window);
            if (found != stack_.end()) {
                found->mapped = event.type == MapNotify;
                if (event.type == MapNotify) {
                    found->overrideRedirect = event.xmap.override_redirect != 0;
                }
                changed_ = true;
            }
            return true;
        }
        case ConfigureNotify: {
            const auto& e = event.xconfigure;
            if (e.event != root) {
                return false;
            }
            auto found = locate(e.window);
            if (found == stack_.end()) {
                return true;
            }
            found->frame = outer(e.x, e.y, e.width, e.height, e.border_width);
            found->overrideRedirect = e.override_redirect != 0;
            changed_ = changed_ || found->mapped;
            placeAbove(e.window, e.above);
            return true;
        }
        case ReparentNotify: {
            const auto& e = event.xreparent;
            if (e.event != root) {
                return false;
            }
            auto found = locate(e.window);
            if (e.parent == root) {
                if (found == stack_.end()) {
                    XWindowAttributes a;
                    X11ErrorTrap trap(display_.get());
                    if (XGetWindowAttributes(display_.get(), e.window, &a)) {
                        stack_.push_back({e.window, a.map_state != IsUnmapped,
                                          a.override_redirect != 0,
                                          outer(a.x, a.y, a.width, a.height, a.border_width)});
                        changed_ = true;
                    }
                }
            } else if (found != stack_.end()) {
                changed_ = changed_ || found->mapped;
                stack_.erase(found);
            }
            return true;
        }
        case CirculateNotify: {
            const auto& e = event.xcirculate;
            if (e.event != root) {
                return false;
            }
            auto found = locate(e.window);
            if (found != stack_.end()) {
                Entry entry = *found;
                stack_.erase(found);
                if (e.place == PlaceOnTop) {
                    stack_.push_back(entry);
                } else {
                    stack_.insert(stack_.begin(), entry);
                }
                changed_ = true;
            }
            return true;
        }
        case GravityNotify:
            return event.xgravity.event == root;
        default:
            return false;
    }
}

bool X11TopLevels::takeChanged() {
    bool changed = changed_;
    changed_ = false;
    return changed;
}

}  // namespace pavix
