#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"
#include "linux/X11Display.h"

namespace pavix {

// What the window system says about one application window.
struct X11WindowInfo {
    Window id = None;
    std::string title;             // _NET_WM_NAME, else WM_NAME; "" without either
    std::int32_t pid = 0;          // _NET_WM_PID, 0 when not set
    std::string instance;          // WM_CLASS instance ("gedit")
    std::string className;         // WM_CLASS class ("Gedit")
    std::string gtkApplicationId;  // _GTK_APPLICATION_ID
    std::vector<Atom> types;       // _NET_WM_WINDOW_TYPE, most specific first
    std::vector<Atom> states;      // _NET_WM_STATE
    Window transientFor = None;
    bool overrideRedirect = false;
    bool viewable = false;
    int depth = 0;
    CaptureRect frame;  // the window's own area (decorations excluded) in root coordinates

    // Reads `window`; nothing when it does not exist. Titles cost two more round trips and are
    // read only when asked for.
    static std::optional<X11WindowInfo> read(X11Display& display, Window window, bool withTitle);
    // Only the position and size, or nothing when the window is gone.
    static std::optional<CaptureRect> geometry(X11Display& display, Window window);

    bool hasType(X11Display& display, const char* type) const;
    bool hasState(X11Display& display, const char* state) const;
};

}  // namespace pavix
