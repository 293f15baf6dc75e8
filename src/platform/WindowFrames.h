#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/capture/CaptureRect.h"
#include "core/sizing/WindowSizing.h"

namespace pavix {

// What a window manager draws around a window's own content, in points on each side.
struct FrameInsets {
    double left = 0, top = 0, right = 0, bottom = 0;
};

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
    // What of the window's frame a recording of it leaves out: the window manager's title bar
    // and borders where the recorded picture is the window's own content (X11); nothing where
    // it is the whole frame. A preset is the size of what is recorded.
    virtual FrameInsets decorations(std::uint32_t windowID) {
        (void)windowID;
        return {};
    }
    // Asks for the window's frame to become `frame` and checks each step against the frame the
    // server reports, with short pauses for the window manager and the application; the last
    // frame read, or none when the window is gone.
    virtual std::optional<CaptureRect> setFrame(std::uint32_t windowID,
                                                const CaptureRect& frame) = 0;
};

}  // namespace pavix
