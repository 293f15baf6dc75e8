#include "linux/X11Monitors.h"

#include <X11/extensions/Xrandr.h>

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"

namespace pavix::X11Monitors {

std::vector<ShareableDisplay> list(X11Display& display) {
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    if (!XRRQueryExtension(display.get(), &eventBase, &errorBase) ||
        !XRRQueryVersion(display.get(), &major, &minor) || major * 100 + minor < 105) {
        // Monitors arrived with RandR 1.5; every current server has it.
        throw CaptureError(CaptureError::kNoDisplayList,
                           "The X server cannot list its monitors (RandR 1.5 is missing).");
    }
    X11ErrorTrap trap(display.get());
    int count = 0;
    XRRMonitorInfo* monitors = XRRGetMonitors(display.get(), display.root(), True, &count);
    std::vector<ShareableDisplay> displays;
    for (int i = 0; i < count; ++i) {
        const auto& monitor = monitors[i];
        // A monitor defined by hand without outputs has no stable identifier to record by.
        if (monitor.noutput < 1) {
            continue;
        }
        displays.push_back({static_cast<std::uint32_t>(monitor.outputs[0]), double(monitor.x),
                            double(monitor.y), double(monitor.width), double(monitor.height)});
    }
    if (monitors != nullptr) {
        XRRFreeMonitors(monitors);
    }
    return displays;
}

}  // namespace pavix::X11Monitors
