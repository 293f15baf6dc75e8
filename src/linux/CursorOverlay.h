#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <vector>

namespace pavix {

// Draws the pointer into captured pictures, which never contain it (the server keeps the
// cursor out of images it hands out). The cursor's image is fetched only when the server says
// it changed; its position is read once per tick.
class CursorOverlay {
  public:
    // Throws CaptureError when the server lacks the XFIXES extension.
    CursorOverlay(Display* display, Window root);
    CursorOverlay(const CursorOverlay&) = delete;
    CursorOverlay& operator=(const CursorOverlay&) = delete;

    // Consumes the server's cursor-change notification.
    bool handle(const XEvent& event);

    // Reads where the cursor falls on a picture of `width` × `height` whose top-left is at
    // (originX, originY) of window `relativeTo`, and answers whether the cursor's appearance on
    // that picture changed since the last call.
    bool update(Window relativeTo, int originX, int originY, int width, int height);

    // Blends the cursor, as placed by the last `update`, into BGRA pixels of the picture.
    void blend(std::uint8_t* pixels, int width, int height, int stride) const;

  private:
    void fetchImage();

    Display* display_;
    int eventBase_ = 0;
    bool stale_ = true;
    // Premultiplied ARGB, as the server gives it.
    std::vector<std::uint32_t> image_;
    int imageWidth_ = 0, imageHeight_ = 0, hotX_ = 0, hotY_ = 0;
    unsigned long serial_ = 0;
    // Top-left of the cursor image on the picture, and whether any of it is on the picture.
    int x_ = 0, y_ = 0;
    bool shown_ = false;
};

}  // namespace pavix
