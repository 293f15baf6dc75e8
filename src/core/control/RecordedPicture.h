#pragma once

#include <optional>

#include "core/capture/CaptureRect.h"

namespace pavix {

// Where things on the screen show in the recording of the shared window, in points of the
// recorded picture: its top-left corner is (0, 0). A window recorded alone is the whole
// picture; a window recorded with its pop-ups lies inside a fixed region of the screen around
// it, so what it shows sits at the window's offset in that region.
struct RecordedPicture {
    // The recorded region on the screen, while the window is recorded with its pop-ups.
    std::optional<CaptureRect> region;

    // A screen point, with `window` where it was when the point was made.
    double x(double screenX, const CaptureRect& window) const {
        return screenX - (region ? region->x : window.x);
    }
    double y(double screenY, const CaptureRect& window) const {
        return screenY - (region ? region->y : window.y);
    }
};

}  // namespace pavix
