#include "linux/X11Display.h"

#include "core/capture/CaptureError.h"

namespace pavix {

X11Display::X11Display(const std::string& name)
    : display_(XOpenDisplay(name.empty() ? nullptr : name.c_str())) {
    if (display_ == nullptr) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "Cannot connect to the X display " +
                               (name.empty() ? std::string("named by DISPLAY") : name) + ".");
    }
}

X11Display::~X11Display() {
    XCloseDisplay(display_);
}

Atom X11Display::atom(const char* name) {
    auto found = atoms_.find(name);
    if (found != atoms_.end()) {
        return found->second;
    }
    Atom atom = XInternAtom(display_, name, False);
    atoms_.emplace(name, atom);
    return atom;
}

}  // namespace pavix
