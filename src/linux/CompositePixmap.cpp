#include "linux/CompositePixmap.h"

#include <X11/extensions/Xcomposite.h>

#include "linux/X11ErrorTrap.h"

namespace pavix {

CompositePixmap::CompositePixmap(Display* display, Window window)
    : display_(display), window_(window) {
    X11ErrorTrap trap(display);
    // Automatic redirection may be requested by any number of clients, unlike manual
    // redirection, which belongs to the compositing manager alone.
    XCompositeRedirectWindow(display, window, CompositeRedirectAutomatic);
    redirected_ = trap.sync() == 0;
}

CompositePixmap::~CompositePixmap() {
    X11ErrorTrap trap(display_);
    release();
    if (redirected_) {
        // The window may already be destroyed (BadWindow), which the trap absorbs.
        XCompositeUnredirectWindow(display_, window_, CompositeRedirectAutomatic);
    }
}

void CompositePixmap::release() {
    if (picture_ != None) {
        XRenderFreePicture(display_, picture_);
        picture_ = None;
    }
    if (pixmap_ != None) {
        XFreePixmap(display_, pixmap_);
        pixmap_ = None;
    }
}

bool CompositePixmap::rename() {
    X11ErrorTrap trap(display_);
    release();
    if (!redirected_) {
        XCompositeRedirectWindow(display_, window_, CompositeRedirectAutomatic);
        redirected_ = trap.sync() == 0;
        if (!redirected_) {
            return false;
        }
    }
    Pixmap named = XCompositeNameWindowPixmap(display_, window_);
    // An unviewable window has no pixmap: the request fails with BadMatch, and the id then
    // names nothing and must not be freed.
    if (trap.sync() != 0) {
        return false;
    }
    pixmap_ = named;
    return true;
}

Picture CompositePixmap::picture() {
    if (picture_ != None || pixmap_ == None) {
        return picture_;
    }
    X11ErrorTrap trap(display_);
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(display_, window_, &attributes)) {
        return None;
    }
    XRenderPictFormat* format = XRenderFindVisualFormat(display_, attributes.visual);
    if (format == nullptr) {
        return None;
    }
    XRenderPictureAttributes pa{};
    pa.subwindow_mode = IncludeInferiors;
    Picture made = XRenderCreatePicture(display_, pixmap_, format, CPSubwindowMode, &pa);
    if (trap.sync() == 0) {
        picture_ = made;
    }
    return picture_;
}

}  // namespace pavix
