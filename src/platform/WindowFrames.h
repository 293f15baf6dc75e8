#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/capture/CaptureRect.h"
#include "core/sizing/WindowSizing.h"

namespace pavix {

// The window system's frames of top-level windows and screens, and the one way to move and
// resize a window, for bringing a shared window to a standard size and back. All frames are
// the windows' outer frames (with the window manager's decorations), in top-left-origin
// points of the virtual screen. Blocking; called off the model executor.
class WindowFrames {
  public:
    virtual ~WindowFrames() = default;

    // Every screen, in the system's order, with the part that windows may use.
    virtual std::vector<ScreenFrame> screens() = 0;
    // The window's frame as the server has it now; none when the window is gone.
    virtual std::optional<CaptureRect> frame(std::uint32_t windowID) = 0;
    // Whether the window may be resized at all: not full-screen, and its size hints leave room.
    virtual bool resizable(std::uint32_t windowID) = 0;
    // Asks for the window's frame to become `frame` and checks each step against the frame the
    // server reports, with short pauses for the window manager and the application; the last
    // frame read, or none when the window is gone.
    virtual std::optional<CaptureRect> setFrame(std::uint32_t windowID,
                                                const CaptureRect& frame) = 0;
};

}  // namespace pavix
