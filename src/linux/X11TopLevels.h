#pragma once

#include <X11/Xlib.h>

#include <vector>

#include "core/capture/CaptureRect.h"
#include "linux/X11Display.h"

namespace pavix {

// The children of the root window in stacking order, kept up to date from the server's
// structure notifications, so that reading the stack costs no round trip. This is how
// compositing managers follow the screen.
class X11TopLevels {
  public:
    struct Entry {
        Window window = None;
        bool mapped = false;
        bool overrideRedirect = false;
        CaptureRect frame;  // outer edges, borders included, in root coordinates
    };

    explicit X11TopLevels(X11Display& display);
    X11TopLevels(const X11TopLevels&) = delete;
    X11TopLevels& operator=(const X11TopLevels&) = delete;

    // Applies a notification about a child of the root; false for any other event.
    bool handle(const XEvent& event);

    // Bottom-most first.
    const std::vector<Entry>& stack() const { return stack_; }
    const Entry* find(Window window) const;

    // Whether a mapped window appeared, vanished, moved, resized or was restacked since the
    // last call.
    bool takeChanged();

  private:
    void reload();
    std::vector<Entry>::iterator locate(Window window);
    void placeAbove(Window window, Window below);

    X11Display& display_;
    std::vector<Entry> stack_;
    bool changed_ = true;
};

}  // namespace pavix
