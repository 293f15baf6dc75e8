#pragma once

#include <X11/Xlib.h>

#include <unordered_map>
#include <vector>

#include "core/capture/CaptureRect.h"
#include "linux/X11Display.h"
#include "linux/X11TopLevels.h"
#include "linux/X11WindowInfo.h"
#include "platform/WindowLayers.h"

namespace pavix {

// One on-screen window of the application being recorded.
struct X11ApplicationWindow {
    Window topLevel = None;  // the child of the root: the frame with decorations, or a pop-up
    Window client = None;    // the application's own window inside it
    CaptureRect outer;       // the top-level's area
    CaptureRect frame;       // the client's area
    LayerWindow::Kind kind = LayerWindow::Kind::window;
};

// Finds, in stacking order, the windows that belong to the application of one recorded window:
// the same process (_NET_WM_PID), the same WM_CLASS, or transient for one of them. Each
// top-level is examined once while it is on screen; later reads cost no round trip unless a
// window was resized.
class X11ApplicationWindows {
  public:
    // Throws CaptureError -3815 when `recorded` does not exist.
    X11ApplicationWindows(X11Display& display, X11TopLevels& topLevels, Window recorded);
    X11ApplicationWindows(const X11ApplicationWindows&) = delete;
    X11ApplicationWindows& operator=(const X11ApplicationWindows&) = delete;

    Window recorded() const { return recorded_.id; }
    const X11WindowInfo& recordedInfo() const { return recorded_; }
    bool recordedGone() const { return gone_; }

    // Notices the destruction of the recorded window.
    bool handle(const XEvent& event);

    // Bottom-most first. Docks and desktop windows are left out.
    std::vector<X11ApplicationWindow> list();

  private:
    struct Identity {
        Window client = None;
        bool member = false;
        LayerWindow::Kind kind = LayerWindow::Kind::window;
        CaptureRect outer;  // the top-level's area when `frame` was read
        CaptureRect frame;
    };

    std::optional<Identity> identify(const X11TopLevels::Entry& entry);
    LayerWindow::Kind kindOf(const X11WindowInfo& info) const;

    X11Display& display_;
    X11TopLevels& topLevels_;
    X11WindowInfo recorded_;
    bool gone_ = false;
    std::unordered_map<Window, Identity> identities_;
};

}  // namespace pavix
