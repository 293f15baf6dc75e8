#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/Xrender.h>

namespace pavix {

// A server-side picture of the root window's depth on which windows are composed, so that
// only the finished picture travels to this process.
class CompositeCanvas {
  public:
    CompositeCanvas(Display* display, Window root, int width, int height);
    ~CompositeCanvas();
    CompositeCanvas(const CompositeCanvas&) = delete;
    CompositeCanvas& operator=(const CompositeCanvas&) = delete;

    int width() const { return width_; }
    int height() const { return height_; }
    Pixmap pixmap() const { return pixmap_; }

    // Paints the whole canvas opaque black.
    void clear();
    // Draws `source` (any depth; windows with an alpha channel are blended) with its top-left
    // at (x, y) of the canvas.
    void draw(Picture source, int x, int y, int width, int height);

  private:
    Display* display_;
    int width_, height_;
    Pixmap pixmap_ = None;
    Picture picture_ = None;
};

}  // namespace pavix
