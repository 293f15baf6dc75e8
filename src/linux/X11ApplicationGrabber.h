#pragma once

#include <map>
#include <memory>

#include "core/capture/CaptureRect.h"
#include "linux/CompositeCanvas.h"
#include "linux/CompositePixmap.h"
#include "linux/DamageTracker.h"
#include "linux/X11ApplicationWindows.h"
#include "linux/X11Display.h"
#include "linux/X11Grabber.h"
#include "linux/X11TopLevels.h"

namespace pavix {

// A region of the screen composed only from the windows of the recorded window's application,
// in stacking order, on black: its menus, dialogs and pop-ups appear; other applications'
// windows do not, and covered parts of the application show their own content.
class X11ApplicationGrabber : public X11Grabber {
  public:
    // Throws CaptureError -3815 when the window does not exist, -3802 when it is not viewable.
    X11ApplicationGrabber(X11Display& display, Window recorded, const CaptureRect& region);

    bool handle(const XEvent& event) override;
    SourceState state() override;
    bool takeChanged() override;
    XShmImage* grab() override;
    Origin origin() const override { return {display_.root(), int(region_.x), int(region_.y)}; }

  private:
    // The composite pixmap and damage of one top-level of the application.
    struct Layer {
        std::unique_ptr<CompositePixmap> pixmap;
        std::unique_ptr<DamageTracker> damage;
        CaptureRect outer;
        // Its pixmap must be named again (new, or resized) before it is drawn.
        bool stale = true;
        // Naming it failed (the window went away between two reads): it is tried again when
        // the window is damaged or resized, not on every tick.
        bool unnamed = false;
    };

    void syncLayers();
    bool readHidden();

    X11Display& display_;
    CaptureRect region_;
    X11TopLevels topLevels_;
    X11ApplicationWindows application_;
    std::vector<X11ApplicationWindow> windows_;
    std::map<Window, Layer> layers_;
    CompositeCanvas canvas_;
    std::unique_ptr<XShmImage> image_;
    bool mapped_ = true;
    bool hidden_ = false;
    bool restacked_ = true;
};

}  // namespace pavix
