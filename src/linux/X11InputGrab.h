#pragma once

#include <X11/Xlib.h>

namespace pavix {

// The pointer and keyboard taken for this client alone, with a crosshair cursor, until this
// object ends.
class X11InputGrab {
  public:
    X11InputGrab(Display* display, Window root);
    ~X11InputGrab();
    X11InputGrab(const X11InputGrab&) = delete;
    X11InputGrab& operator=(const X11InputGrab&) = delete;

    // Tries to take both; false while another client holds a grab (a menu is open, a drag is
    // under way). Safe to call again.
    bool take();
    bool held() const { return pointer_ && keyboard_; }

  private:
    Display* display_;
    Window root_;
    Cursor cursor_;
    bool pointer_ = false;
    bool keyboard_ = false;
};

}  // namespace pavix
