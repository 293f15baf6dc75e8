#include "linux/X11ApplicationGrabber.h"

#include <algorithm>

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"

namespace pavix {

X11ApplicationGrabber::X11ApplicationGrabber(X11Display& display, Window recorded,
                                             const CaptureRect& region)
    : display_(display),
      region_(region.integral()),
      topLevels_(display),
      application_(display, topLevels_, recorded),
      canvas_(display.get(), display.root(), int(region_.width), int(region_.height)) {
    if (!application_.recordedInfo().viewable) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The window is minimized or hidden, so it has nothing to capture.");
    }
    XWindowAttributes attributes;
    X11ErrorTrap trap(display.get());
    XGetWindowAttributes(display.get(), recorded, &attributes);
    XSelectInput(display.get(), recorded,
                 attributes.your_event_mask | StructureNotifyMask | PropertyChangeMask);
    hidden_ = readHidden();
    int screen = DefaultScreen(display.get());
    image_ = std::make_unique<XShmImage>(display.get(), DefaultVisual(display.get(), screen),
                                         DefaultDepth(display.get(), screen), canvas_.width(),
                                         canvas_.height());
}

bool X11ApplicationGrabber::readHidden() {
    auto states = X11Properties::items(display_, application_.recorded(), "_NET_WM_STATE");
    return std::find(states.begin(), states.end(), display_.atom("_NET_WM_STATE_HIDDEN")) !=
           states.end();
}

bool X11ApplicationGrabber::handle(const XEvent& event) {
    if (topLevels_.handle(event) || application_.handle(event)) {
        return true;
    }
    for (auto& [window, layer] : layers_) {
        if (layer.damage->handle(event)) {
            return true;
        }
    }
    Window recorded = application_.recorded();
    switch (event.type) {
        case UnmapNotify:
            if (event.xunmap.window != recorded) {
                return false;
            }
            mapped_ = false;
            return true;
        case MapNotify:
            if (event.xmap.window != recorded) {
                return false;
            }
            mapped_ = true;
            return true;
        case PropertyNotify:
            if (event.xproperty.window != recorded ||
                event.xproperty.atom != display_.atom("_NET_WM_STATE")) {
                return false;
            }
            hidden_ = readHidden();
            return true;
        default:
            return false;
    }
}

X11Grabber::SourceState X11ApplicationGrabber::state() {
    if (application_.recordedGone()) {
        return SourceState::vanished;
    }
    return mapped_ && !hidden_ ? SourceState::visible : SourceState::hidden;
}

void X11ApplicationGrabber::syncLayers() {
    windows_ = application_.list();
    std::map<Window, Layer> kept;
    for (const auto& window : windows_) {
        auto found = layers_.find(window.topLevel);
        if (found != layers_.end()) {
            Layer layer = std::move(found->second);
            if (layer.outer.width != window.outer.width ||
                layer.outer.height != window.outer.height) {
                layer.stale = true;
                layer.unnamed = false;
            }
            layer.outer = window.outer;
            kept.emplace(window.topLevel, std::move(layer));
            continue;
        }
        Layer layer;
        layer.pixmap = std::make_unique<CompositePixmap>(display_.get(), window.topLevel);
        try {
            layer.damage = std::make_unique<DamageTracker>(display_.get(), window.topLevel);
        } catch (const CaptureError&) {
            continue;  // a pop-up that closed as it opened
        }
        layer.outer = window.outer;
        kept.emplace(window.topLevel, std::move(layer));
    }
    // Layers of windows that left are destroyed here, which ends their redirection.
    layers_ = std::move(kept);
}

bool X11ApplicationGrabber::takeChanged() {
    bool changed = false;
    if (topLevels_.takeChanged()) {
        syncLayers();
        changed = true;
    }
    for (auto& [window, layer] : layers_) {
        const bool damaged = layer.damage->take();
        if (damaged && layer.unnamed) {
            layer.unnamed = false;
            layer.stale = true;
        }
        // A window outside the region is never drawn, so its pixmap stays unnamed: it changes
        // nothing in the picture.
        const bool shows = !layer.outer.intersection(region_).empty();
        changed = changed || (shows && (damaged || (layer.stale && !layer.unnamed)));
    }
    return changed;
}

XShmImage* X11ApplicationGrabber::grab() {
    canvas_.clear();
    for (const auto& window : windows_) {
        auto found = layers_.find(window.topLevel);
        if (found == layers_.end() || window.outer.intersection(region_).empty()) {
            continue;
        }
        Layer& layer = found->second;
        if (layer.unnamed) {
            continue;
        }
        if (layer.stale) {
            if (!layer.pixmap->rename()) {
                layer.unnamed = true;
                continue;
            }
            layer.stale = false;
        }
        Picture picture = layer.pixmap->picture();
        if (picture != None) {
            canvas_.draw(picture, int(window.outer.x - region_.x), int(window.outer.y - region_.y),
                         int(window.outer.width), int(window.outer.height));
        }
    }
    if (!image_->grab(canvas_.pixmap(), 0, 0)) {
        return nullptr;
    }
    return image_.get();
}

}  // namespace pavix
