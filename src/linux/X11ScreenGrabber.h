#pragma once

#include <cstdint>
#include <memory>

#include "core/capture/CaptureRect.h"
#include "linux/DamageTracker.h"
#include "linux/X11Display.h"
#include "linux/X11Grabber.h"

namespace pavix {

// One display as shown, read from the root window.
class X11ScreenGrabber : public X11Grabber {
  public:
    // Throws CaptureError -3815 when no monitor has the output `displayID`.
    X11ScreenGrabber(X11Display& display, std::uint32_t displayID);

    bool handle(const XEvent& event) override;
    SourceState state() override { return gone_ ? SourceState::vanished : SourceState::visible; }
    bool takeChanged() override;
    XShmImage* grab() override;
    Origin origin() const override;

  private:
    bool locate();

    X11Display& display_;
    std::uint32_t displayID_;
    CaptureRect area_;
    int randrEventBase_ = 0;
    bool gone_ = false;
    bool resized_ = false;
    DamageTracker damage_;
    std::unique_ptr<XShmImage> image_;
};

}  // namespace pavix
