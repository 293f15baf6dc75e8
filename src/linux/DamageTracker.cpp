#include "linux/DamageTracker.h"

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"

namespace pavix {

DamageTracker::DamageTracker(Display* display, Drawable drawable) : display_(display) {
    int errorBase = 0;
    if (!XDamageQueryExtension(display, &eventBase_, &errorBase)) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The X server does not offer the DAMAGE extension.");
    }
    X11ErrorTrap trap(display);
    damage_ = XDamageCreate(display, drawable, XDamageReportNonEmpty);
    parts_ = XFixesCreateRegion(display, nullptr, 0);
    if (trap.sync() != 0) {
        throw CaptureError(CaptureError::kNoCaptureSource,
                           "The window to capture no longer exists.");
    }
}

DamageTracker::~DamageTracker() {
    X11ErrorTrap trap(display_);
    // Destroying the drawable already destroyed its damage object; the trap absorbs BadDamage.
    XDamageDestroy(display_, damage_);
    XFixesDestroyRegion(display_, parts_);
}

bool DamageTracker::handle(const XEvent& event) {
    if (event.type != eventBase_ + XDamageNotify) {
        return false;
    }
    if (reinterpret_cast<const XDamageNotifyEvent&>(event).damage != damage_) {
        return false;
    }
    notified_ = true;
    return true;
}

bool DamageTracker::take(const std::optional<CaptureRect>& area) {
    if (!notified_) {
        return false;
    }
    notified_ = false;
    if (!area) {
        XDamageSubtract(display_, damage_, None, None);
        return true;
    }
    XDamageSubtract(display_, damage_, None, parts_);
    int count = 0;
    XRectangle* rects = XFixesFetchRegion(display_, parts_, &count);
    bool inside = false;
    for (int i = 0; i < count && !inside; ++i) {
        CaptureRect part{double(rects[i].x), double(rects[i].y), double(rects[i].width),
                         double(rects[i].height)};
        inside = !part.intersection(*area).empty();
    }
    if (rects != nullptr) {
        XFree(rects);
    }
    return inside;
}

}  // namespace pavix
