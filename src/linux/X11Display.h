#pragma once

#include <X11/Xlib.h>

#include <string>
#include <unordered_map>

namespace pavix {

// One connection to the X server, used by one thread at a time. Opening it fails with a
// CaptureError when no server can be reached.
class X11Display {
  public:
    // `name` as in XOpenDisplay; empty means $DISPLAY.
    explicit X11Display(const std::string& name = "");
    ~X11Display();
    X11Display(const X11Display&) = delete;
    X11Display& operator=(const X11Display&) = delete;

    Display* get() const { return display_; }
    Window root() const { return DefaultRootWindow(display_); }
    int screenWidth() const { return DisplayWidth(display_, DefaultScreen(display_)); }
    int screenHeight() const { return DisplayHeight(display_, DefaultScreen(display_)); }
    int fd() const { return ConnectionNumber(display_); }

    // The atom of `name`, interned once per connection.
    Atom atom(const char* name);

  private:
    Display* display_;
    std::unordered_map<std::string, Atom> atoms_;
};

}  // namespace pavix
