#include "linux/CompositeCanvas.h"

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"

namespace pavix {

CompositeCanvas::CompositeCanvas(Display* display, Window root, int width, int height)
    : display_(display), width_(width), height_(height) {
    int eventBase = 0, errorBase = 0;
    if (!XRenderQueryExtension(display, &eventBase, &errorBase)) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The X server does not offer the RENDER extension.");
    }
    X11ErrorTrap trap(display);
    int screen = DefaultScreen(display);
    pixmap_ = XCreatePixmap(display, root, width, height, DefaultDepth(display, screen));
    XRenderPictFormat* format = XRenderFindVisualFormat(display, DefaultVisual(display, screen));
    picture_ = XRenderCreatePicture(display, pixmap_, format, 0, nullptr);
    if (trap.sync() != 0) {
        throw CaptureError(CaptureError::kFailedToStart, "Cannot make the capture canvas.");
    }
}

CompositeCanvas::~CompositeCanvas() {
    X11ErrorTrap trap(display_);
    XRenderFreePicture(display_, picture_);
    XFreePixmap(display_, pixmap_);
}

void CompositeCanvas::clear() {
    XRenderColor black{0, 0, 0, 0xffff};
    XRenderFillRectangle(display_, PictOpSrc, picture_, &black, 0, 0, width_, height_);
}

void CompositeCanvas::draw(Picture source, int x, int y, int width, int height) {
    XRenderComposite(display_, PictOpOver, source, None, picture_, 0, 0, 0, 0, x, y, width, height);
}

}  // namespace pavix
