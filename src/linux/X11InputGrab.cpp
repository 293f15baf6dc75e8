#include "linux/X11InputGrab.h"

#include <X11/cursorfont.h>

#include "linux/X11ErrorTrap.h"

namespace pavix {

X11InputGrab::X11InputGrab(Display* display, Window root)
    : display_(display), root_(root), cursor_(XCreateFontCursor(display, XC_crosshair)) {}

X11InputGrab::~X11InputGrab() {
    X11ErrorTrap trap(display_);
    if (pointer_) {
        XUngrabPointer(display_, CurrentTime);
    }
    if (keyboard_) {
        XUngrabKeyboard(display_, CurrentTime);
    }
    XFreeCursor(display_, cursor_);
}

bool X11InputGrab::take() {
    if (!pointer_) {
        pointer_ =
            XGrabPointer(display_, root_, False, ButtonPressMask | ButtonReleaseMask, GrabModeAsync,
                         GrabModeAsync, None, cursor_, CurrentTime) == GrabSuccess;
    }
    if (!keyboard_) {
        keyboard_ = XGrabKeyboard(display_, root_, False, GrabModeAsync, GrabModeAsync,
                                  CurrentTime) == GrabSuccess;
    }
    return held();
}

}  // namespace pavix
