#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/Xdamage.h>
#include <X11/extensions/Xfixes.h>

#include <optional>

#include "core/capture/CaptureRect.h"

namespace pavix {

// Tells whether a drawable changed since the last tick. The server sends one notification when
// the damage goes from empty to non-empty; nothing more arrives until the damage is subtracted,
// so an unchanged drawable costs no traffic at all.
class DamageTracker {
  public:
    // Throws CaptureError when the server lacks the DAMAGE or XFIXES extension.
    DamageTracker(Display* display, Drawable drawable);
    ~DamageTracker();
    DamageTracker(const DamageTracker&) = delete;
    DamageTracker& operator=(const DamageTracker&) = delete;

    // Consumes the event when it is this tracker's notification.
    bool handle(const XEvent& event);

    // Whether anything changed since the last call (inside `area`, in the drawable's
    // coordinates, when given), and starts over. A call after no notification sends nothing.
    bool take(const std::optional<CaptureRect>& area = std::nullopt);

  private:
    Display* display_;
    Damage damage_ = None;
    XserverRegion parts_ = None;
    int eventBase_ = 0;
    bool notified_ = true;  // the first tick always reads
};

}  // namespace pavix
