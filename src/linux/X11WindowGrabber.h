#pragma once

#include <memory>

#include "linux/CompositePixmap.h"
#include "linux/DamageTracker.h"
#include "linux/X11Display.h"
#include "linux/X11Grabber.h"

namespace pavix {

// One window's own content through its composite pixmap, complete even where other windows
// cover it.
class X11WindowGrabber : public X11Grabber {
  public:
    // Throws CaptureError -3815 when the window does not exist, -3802 when it is minimised,
    // hidden or of a pixel format that cannot be captured.
    X11WindowGrabber(X11Display& display, Window window);

    bool handle(const XEvent& event) override;
    SourceState state() override;
    bool takeChanged() override;
    XShmImage* grab() override;
    Origin origin() const override { return {window_, 0, 0}; }

  private:
    bool readHidden();

    X11Display& display_;
    Window window_;
    Visual* visual_ = nullptr;
    int depth_ = 0;
    int width_ = 0, height_ = 0, border_ = 0;
    bool mapped_ = true;
    bool hidden_ = false;
    bool gone_ = false;
    bool stale_ = true;  // the pixmap must be named (again) before reading
    CompositePixmap pixmap_;
    DamageTracker damage_;
    std::unique_ptr<XShmImage> image_;
};

}  // namespace pavix
