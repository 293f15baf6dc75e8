#include "linux/X11WindowGrabber.h"

#include <algorithm>

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"

namespace pavix {
namespace {

// Reads the window's attributes for the constructor, or throws when it does not exist.
XWindowAttributes attributesOf(X11Display& display, Window window) {
    X11ErrorTrap trap(display.get());
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(display.get(), window, &attributes)) {
        throw CaptureError(CaptureError::kNoCaptureSource, "The window no longer exists.");
    }
    return attributes;
}

Window checked(X11Display& display, Window window) {
    auto attributes = attributesOf(display, window);
    const Visual* visual = attributes.visual;
    // Byte order B, G, R, X/A in memory: what every true-colour X server on a little-endian
    // machine offers for depths 24 and 32.
    if ((attributes.depth != 24 && attributes.depth != 32) || visual->red_mask != 0xff0000 ||
        visual->green_mask != 0xff00 || visual->blue_mask != 0xff) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The window's pixel format cannot be captured.");
    }
    if (attributes.map_state != IsViewable) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The window is minimized or hidden, so it has nothing to capture.");
    }
    return window;
}

}  // namespace

X11WindowGrabber::X11WindowGrabber(X11Display& display, Window window)
    : display_(display),
      window_(checked(display, window)),
      pixmap_(display.get(), window),
      damage_(display.get(), window) {
    auto attributes = attributesOf(display, window);
    visual_ = attributes.visual;
    depth_ = attributes.depth;
    width_ = attributes.width;
    height_ = attributes.height;
    border_ = attributes.border_width;
    XSelectInput(display.get(), window,
                 attributes.your_event_mask | StructureNotifyMask | PropertyChangeMask);
    hidden_ = readHidden();
    if (hidden_) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The window is minimized or hidden, so it has nothing to capture.");
    }
}

bool X11WindowGrabber::readHidden() {
    auto states = X11Properties::items(display_, window_, "_NET_WM_STATE");
    return std::find(states.begin(), states.end(), display_.atom("_NET_WM_STATE_HIDDEN")) !=
           states.end();
}

bool X11WindowGrabber::handle(const XEvent& event) {
    if (damage_.handle(event)) {
        return true;
    }
    switch (event.type) {
        case DestroyNotify:
            if (event.xdestroywindow.window != window_) {
                return false;
            }
            gone_ = true;
            return true;
        case UnmapNotify:
            if (event.xunmap.window != window_) {
                return false;
            }
            mapped_ = false;
            return true;
        case MapNotify:
            if (event.xmap.window != window_) {
                return false;
            }
            mapped_ = true;
            stale_ = true;
            return true;
        case ConfigureNotify: {
            const auto& e = event.xconfigure;
            if (e.window != window_) {
                return false;
            }
            // Window managers also send synthetic notifications that only report a move; the
            // pixmap changes only with the size.
            if (e.width != width_ || e.height != height_ || e.border_width != border_) {
                width_ = e.width;
                height_ = e.height;
                border_ = e.border_width;
                stale_ = true;
            }
            return true;
        }
        case ReparentNotify:
            if (event.xreparent.window != window_) {
                return false;
            }
            stale_ = true;
            return true;
        case PropertyNotify:
            if (event.xproperty.window != window_ ||
                event.xproperty.atom != display_.atom("_NET_WM_STATE")) {
                return false;
            }
            hidden_ = readHidden();
            stale_ = true;
            return true;
        default:
            return false;
    }
}

X11Grabber::SourceState X11WindowGrabber::state() {
    if (gone_) {
        return SourceState::vanished;
    }
    return mapped_ && !hidden_ ? SourceState::visible : SourceState::hidden;
}

bool X11WindowGrabber::takeChanged() {
    bool damaged = damage_.take();
    return damaged || stale_;
}

XShmImage* X11WindowGrabber::grab() {
    if (stale_) {
        if (!pixmap_.rename()) {
            // Not viewable right now; the map notification (or the destruction) follows.
            return nullptr;
        }
        if (!image_ || image_->width() != width_ || image_->height() != height_) {
            image_.reset();
            image_ = std::make_unique<XShmImage>(display_.get(), visual_, depth_, width_, height_);
        }
        stale_ = false;
    }
    // The named pixmap includes the window's border; the content starts inside it.
    if (!image_->grab(pixmap_.pixmap(), border_, border_)) {
        stale_ = true;  // resized in between: name it again next tick
        return nullptr;
    }
    return image_.get();
}

}  // namespace pavix
