#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/Xrender.h>

namespace pavix {

// The off-screen content of one window. While this object lives the window is redirected
// (automatically, so the server still shows it on screen), which keeps its pixels even where
// other windows cover it.
class CompositePixmap {
  public:
    CompositePixmap(Display* display, Window window);
    ~CompositePixmap();
    CompositePixmap(const CompositePixmap&) = delete;
    CompositePixmap& operator=(const CompositePixmap&) = delete;

    // Names the window's current pixmap, releasing the previous one. The server allocates a new
    // pixmap whenever the window is resized or mapped again, so this is needed after every
    // configure, map or expose. False when the window is not viewable (it then has no content)
    // or is gone.
    bool rename();

    Window window() const { return window_; }
    Pixmap pixmap() const { return pixmap_; }
    // A picture of the pixmap for XRender composition, made on first use; None when there is no
    // pixmap.
    Picture picture();

  private:
    void release();

    Display* display_;
    Window window_;
    Pixmap pixmap_ = None;
    Picture picture_ = None;
    bool redirected_ = false;
};

}  // namespace pavix
