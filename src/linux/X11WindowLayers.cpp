#include "linux/X11WindowLayers.h"

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"

namespace pavix {

X11WindowLayers::X11WindowLayers(const std::string& displayName)
    : display_(displayName), topLevels_(display_) {}

std::vector<LayerWindow> X11WindowLayers::windows(std::uint32_t windowID) {
    std::lock_guard lock(mutex_);
    X11ErrorTrap trap(display_.get());
    while (XPending(display_.get()) > 0) {
        XEvent event;
        XNextEvent(display_.get(), &event);
        if (!topLevels_.handle(event) && application_) {
            application_->handle(event);
        }
    }
    if (!application_ || application_->recorded() != windowID) {
        application_.reset();
        application_ = std::make_unique<X11ApplicationWindows>(display_, topLevels_, windowID);
    }
    if (application_->recordedGone()) {
        throw CaptureError(CaptureError::kNoCaptureSource, "The recorded window was closed.");
    }
    std::vector<LayerWindow> result;
    for (const auto& window : application_->list()) {
        result.push_back({static_cast<std::uint32_t>(window.client), window.frame.x, window.frame.y,
                          window.frame.width, window.frame.height, window.kind});
    }
    return result;
}

}  // namespace pavix
