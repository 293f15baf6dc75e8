#include "linux/X11ShareableContent.h"

#include <filesystem>

#include "linux/X11ErrorTrap.h"
#include "linux/X11Monitors.h"
#include "linux/X11Properties.h"
#include "linux/X11WindowInfo.h"

namespace pavix {
namespace {

std::string executableOf(std::int32_t pid) {
    if (pid <= 0) {
        return "";
    }
    std::error_code error;
    auto target = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error);
    return error ? "" : target.string();
}

}  // namespace

X11ShareableContent::X11ShareableContent(const std::string& displayName, X11DesktopEntries entries)
    : display_(displayName), entries_(std::move(entries)) {}

std::vector<Window> X11ShareableContent::clients() {
    std::vector<Window> result;
    Window root = display_.root();
    if (X11Properties::has(display_, root, "_NET_CLIENT_LIST_STACKING")) {
        for (auto window : X11Properties::items(display_, root, "_NET_CLIENT_LIST_STACKING")) {
            result.push_back(static_cast<Window>(window));
        }
        return result;
    }
    // Without an EWMH window manager: the mapped top-levels, less the override-redirect ones
    // (menus and tooltips placed by their applications).
    Window rootReturn = None, parent = None, *children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(display_.get(), root, &rootReturn, &parent, &children, &count)) {
        return result;
    }
    for (unsigned int i = 0; i < count; ++i) {
        XWindowAttributes attributes;
        if (XGetWindowAttributes(display_.get(), children[i], &attributes) &&
            attributes.map_state == IsViewable && !attributes.override_redirect) {
            Window client = X11Properties::clientWindow(display_, children[i]);
            result.push_back(client != None ? client : children[i]);
        }
    }
    if (children != nullptr) {
        XFree(children);
    }
    return result;
}

ShareableContentSnapshot X11ShareableContent::current() {
    std::lock_guard lock(mutex_);
    X11ErrorTrap trap(display_.get());
    ShareableContentSnapshot snapshot;
    for (Window client : clients()) {
        auto info = X11WindowInfo::read(display_, client, true);
        if (!info || info->hasType(display_, "_NET_WM_WINDOW_TYPE_DOCK") ||
            info->hasType(display_, "_NET_WM_WINDOW_TYPE_DESKTOP")) {
            continue;
        }
        ShareableWindow window;
        window.id = static_cast<std::uint32_t>(client);
        window.title = info->title;
        window.pid = info->pid;
        auto entry = entries_.find(info->gtkApplicationId, info->instance, info->className,
                                   executableOf(info->pid));
        if (entry) {
            window.appName = entry->name;
            window.appId = entry->id;
        } else if (auto name = X11DesktopEntries::readableClass(info->instance, info->className);
                   !name.empty()) {
            window.appName = name;
        }
        window.x = info->frame.x;
        window.y = info->frame.y;
        window.width = info->frame.width;
        window.height = info->frame.height;
        window.onScreen = info->viewable && !info->hasState(display_, "_NET_WM_STATE_HIDDEN");
        snapshot.windows.push_back(std::move(window));
    }
    snapshot.displays = X11Monitors::list(display_);
    return snapshot;
}

}  // namespace pavix
