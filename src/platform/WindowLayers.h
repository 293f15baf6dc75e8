#pragma once

#include <cstdint>
#include <vector>

namespace pavix {

// One on-screen window of the recorded window's application.
struct LayerWindow {
    enum class Kind { window, popup };

    std::uint32_t id = 0;
    double x = 0, y = 0, width = 0, height = 0;  // on the virtual screen, points
    // Normal windows and dialogs are windows; menus, drop-downs, pop-ups, tooltips, combo lists
    // and windows placed without the window manager are pop-ups.
    Kind kind = Kind::window;
};

// Lists the windows that make up what the user sees of an application while one of its windows
// is recorded. Blocking (round trips to the window system); safe to call from any one thread at
// a time.
class WindowLayers {
  public:
    virtual ~WindowLayers() = default;
    // The visible windows of the application of `windowID`, including that window itself, in
    // stacking order with the bottom-most first. Docks and desktop backgrounds are left out.
    // Throws CaptureError when the window no longer exists.
    virtual std::vector<LayerWindow> windows(std::uint32_t windowID) = 0;
};

}  // namespace pavix
