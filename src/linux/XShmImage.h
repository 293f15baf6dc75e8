#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/XShm.h>

#include <cstdint>

namespace pavix {

// An image in memory shared with the X server, so that reading pixels costs one request and no
// copy through the socket.
class XShmImage {
  public:
    // Throws CaptureError when the server does not offer MIT-SHM or the segment cannot be made.
    XShmImage(Display* display, Visual* visual, int depth, int width, int height);
    ~XShmImage();
    XShmImage(const XShmImage&) = delete;
    XShmImage& operator=(const XShmImage&) = delete;

    // Reads the rectangle of the image's size at (x, y) of `drawable`. False when the server
    // refused (the drawable is gone, or the rectangle does not fit in it); the caller's error
    // trap holds the error.
    bool grab(Drawable drawable, int x, int y);

    int width() const { return image_->width; }
    int height() const { return image_->height; }
    int stride() const { return image_->bytes_per_line; }
    std::uint8_t* data() { return reinterpret_cast<std::uint8_t*>(image_->data); }
    const std::uint8_t* data() const { return reinterpret_cast<const std::uint8_t*>(image_->data); }

  private:
    void release();

    Display* display_;
    XShmSegmentInfo segment_{};
    XImage* image_ = nullptr;
    bool attached_ = false;
};

}  // namespace pavix
