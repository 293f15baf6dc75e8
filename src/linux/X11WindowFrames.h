#pragma once

#include <mutex>
#include <string>

#include "linux/X11Display.h"
#include "platform/WindowFrames.h"

namespace pavix {

// Window and screen frames on an X11 desktop, and moving and resizing a top-level window
// through the window manager. Keeps its own connection; safe to call from several threads
// (one call is served at a time).
//
// Screens are the RandR monitors, their usable parts what the docks' and panels' struts leave.
// A window's frame is its client window's place on the root plus the decorations the window
// manager announces in _NET_FRAME_EXTENTS. A wanted frame is asked of the window manager with
// _NET_MOVERESIZE_WINDOW (a configure request when the manager has no such message), one step
// at a time, each checked against what the server then reports.
class X11WindowFrames : public WindowFrames {
  public:
    explicit X11WindowFrames(const std::string& displayName = "");

    std::vector<ScreenFrame> screens() override;
    std::optional<CaptureRect> frame(std::uint32_t windowID) override;
    bool resizable(std::uint32_t windowID) override;
    FrameInsets decorations(std::uint32_t windowID) override;
    std::optional<CaptureRect> setFrame(std::uint32_t windowID, const CaptureRect& frame) override;

  private:
    std::mutex mutex_;
    X11Display display_;
    bool monitorsListed_ = false;  // the server lists RandR monitors (RandR 1.5)
};

}  // namespace pavix
