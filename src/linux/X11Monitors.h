#pragma once

#include <vector>

#include "linux/X11Display.h"
#include "platform/ShareableContent.h"

namespace pavix {

// The displays of the screen as RandR monitors, each named by its first output.
namespace X11Monitors {

// Throws CaptureError when RandR cannot list the monitors.
std::vector<ShareableDisplay> list(X11Display& display);

}  // namespace X11Monitors
}  // namespace pavix
