#include "linux/X11ApplicationWindows.h"

#include <algorithm>

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"

namespace pavix {

X11ApplicationWindows::X11ApplicationWindows(X11Display& display, X11TopLevels& topLevels,
                                             Window recorded)
    : display_(display), topLevels_(topLevels) {
    X11ErrorTrap trap(display.get());
    auto info = X11WindowInfo::read(display, recorded, false);
    if (!info) {
        throw CaptureError(CaptureError::kNoCaptureSource, "The window no longer exists.");
    }
    recorded_ = *info;
    XWindowAttributes attributes;
    XGetWindowAttributes(display.get(), recorded, &attributes);
    XSelectInput(display.get(), recorded, attributes.your_event_mask | StructureNotifyMask);
}

bool X11ApplicationWindows::handle(const XEvent& event) {
    if (event.type == DestroyNotify && event.xdestroywindow.window == recorded_.id) {
        gone_ = true;
        return true;
    }
    return false;
}

LayerWindow::Kind X11ApplicationWindows::kindOf(const X11WindowInfo& info) const {
    if (info.overrideRedirect) {
        return LayerWindow::Kind::popup;
    }
    for (const char* type : {"_NET_WM_WINDOW_TYPE_MENU", "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU",
                             "_NET_WM_WINDOW_TYPE_POPUP_MENU", "_NET_WM_WINDOW_TYPE_TOOLTIP",
                             "_NET_WM_WINDOW_TYPE_COMBO"}) {
        if (info.hasType(display_, type)) {
            return LayerWindow::Kind::popup;
        }
    }
    return LayerWindow::Kind::window;
}

std::optional<X11ApplicationWindows::Identity> X11ApplicationWindows::identify(
    const X11TopLevels::Entry& entry) {
    // A managed window carries WM_STATE inside the manager's frame; a pop-up placed without the
    // manager (override-redirect) is its own client.
    Window client =
        entry.overrideRedirect ? entry.window : X11Properties::clientWindow(display_, entry.window);
    if (client == None) {
        return std::nullopt;  // a frame still being set up, or the manager's own window
    }
    auto info = X11WindowInfo::read(display_, client, false);
    if (!info) {
        return std::nullopt;
    }
    Identity identity;
    identity.client = client;
    identity.outer = entry.frame;
    identity.frame = entry.overrideRedirect ? entry.frame : info->frame;
    if (info->hasType(display_, "_NET_WM_WINDOW_TYPE_DOCK") ||
        info->hasType(display_, "_NET_WM_WINDOW_TYPE_DESKTOP")) {
        return identity;  // never a member
    }
    bool transientForMember = false;
    if (info->transientFor != None) {
        transientForMember =
            info->transientFor == recorded_.id ||
            std::any_of(identities_.begin(), identities_.end(), [&](const auto& known) {
                return known.second.member && known.second.client == info->transientFor;
            });
    }
    // The class names an application, not a process: a second terminal or browser window has
    // the recorded one's class too. It counts only where a process is not known to differ.
    const bool samePid = recorded_.pid != 0 && info->pid == recorded_.pid;
    const bool otherProcess = recorded_.pid != 0 && info->pid != 0 && info->pid != recorded_.pid;
    const bool sameClass = !recorded_.className.empty() && info->className == recorded_.className;
    identity.member =
        client == recorded_.id || samePid || (sameClass && !otherProcess) || transientForMember;
    identity.kind = kindOf(*info);
    return identity;
}

std::vector<X11ApplicationWindow> X11ApplicationWindows::list() {
    std::vector<X11ApplicationWindow> result;
    const auto& stack = topLevels_.stack();
    // Forget windows that left the stack; their ids may be reused.
    std::erase_if(identities_,
                  [&](const auto& known) { return topLevels_.find(known.first) == nullptr; });
    for (const auto& entry : stack) {
        if (!entry.mapped) {
            continue;
        }
        auto known = identities_.find(entry.window);
        if (known == identities_.end()) {
            auto identity = identify(entry);
            if (!identity) {
                continue;
            }
            known = identities_.emplace(entry.window, *identity).first;
        }
        Identity& identity = known->second;
        if (!identity.member) {
            continue;
        }
        if (identity.outer != entry.frame) {
            if (identity.outer.width == entry.frame.width &&
                identity.outer.height == entry.frame.height) {
                // Moved only: the client moved with its frame.
                identity.frame.x += entry.frame.x - identity.outer.x;
                identity.frame.y += entry.frame.y - identity.outer.y;
            } else if (entry.overrideRedirect) {
                identity.frame = entry.frame;
            } else if (auto frame = X11WindowInfo::geometry(display_, identity.client)) {
                identity.frame = *frame;
            }
            identity.outer = entry.frame;
        }
        result.push_back(
            {entry.window, identity.client, entry.frame, identity.frame, identity.kind});
    }
    return result;
}

}  // namespace pavix
