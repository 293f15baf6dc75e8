#include "linux/X11ScreenGrabber.h"

#include <X11/extensions/Xrandr.h>

#include "core/capture/CaptureError.h"
#include "linux/X11Monitors.h"

namespace pavix {

X11ScreenGrabber::X11ScreenGrabber(X11Display& display, std::uint32_t displayID)
    : display_(display), displayID_(displayID), damage_(display.get(), display.root()) {
    if (!locate()) {
        throw CaptureError(CaptureError::kNoCaptureSource, "The display is not connected.");
    }
    int errorBase = 0;
    XRRQueryExtension(display.get(), &randrEventBase_, &errorBase);
    XRRSelectInput(display.get(), display.root(), RRScreenChangeNotifyMask);
}

bool X11ScreenGrabber::locate() {
    for (const auto& monitor : X11Monitors::list(display_)) {
        if (monitor.id == displayID_) {
            CaptureRect area{monitor.x, monitor.y, monitor.width, monitor.height};
            resized_ = resized_ || area.width != area_.width || area.height != area_.height;
            area_ = area;
            return true;
        }
    }
    return false;
}

bool X11ScreenGrabber::handle(const XEvent& event) {
    if (damage_.handle(event)) {
        return true;
    }
    if (event.type != randrEventBase_ + RRScreenChangeNotify) {
        return false;
    }
    XRRUpdateConfiguration(const_cast<XEvent*>(&event));
    gone_ = !locate();
    return true;
}

bool X11ScreenGrabber::takeChanged() {
    bool damaged = damage_.take(area_);
    return damaged || resized_;
}

XShmImage* X11ScreenGrabber::grab() {
    if (!image_ || resized_) {
        image_.reset();
        int screen = DefaultScreen(display_.get());
        image_ = std::make_unique<XShmImage>(display_.get(), DefaultVisual(display_.get(), screen),
                                             DefaultDepth(display_.get(), screen), int(area_.width),
                                             int(area_.height));
        resized_ = false;
    }
    if (!image_->grab(display_.root(), int(area_.x), int(area_.y))) {
        return nullptr;
    }
    return image_.get();
}

X11Grabber::Origin X11ScreenGrabber::origin() const {
    return {display_.root(), int(area_.x), int(area_.y)};
}

}  // namespace pavix
