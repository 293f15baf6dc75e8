#include "linux/CursorOverlay.h"

#include <X11/extensions/Xfixes.h>

#include <algorithm>

#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"

namespace pavix {

CursorOverlay::CursorOverlay(Display* display, Window root) : display_(display) {
    int errorBase = 0;
    if (!XFixesQueryExtension(display, &eventBase_, &errorBase)) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The X server does not offer the XFIXES extension.");
    }
    XFixesSelectCursorInput(display, root, XFixesDisplayCursorNotifyMask);
}

bool CursorOverlay::handle(const XEvent& event) {
    if (event.type != eventBase_ + XFixesCursorNotify) {
        return false;
    }
    auto& notify = reinterpret_cast<const XFixesCursorNotifyEvent&>(event);
    if (notify.cursor_serial != serial_) {
        stale_ = true;
    }
    return true;
}

void CursorOverlay::fetchImage() {
    stale_ = false;
    XFixesCursorImage* cursor = XFixesGetCursorImage(display_);
    if (cursor == nullptr) {
        image_.clear();
        imageWidth_ = imageHeight_ = 0;
        return;
    }
    serial_ = cursor->cursor_serial;
    imageWidth_ = cursor->width;
    imageHeight_ = cursor->height;
    hotX_ = cursor->xhot;
    hotY_ = cursor->yhot;
    // Xlib hands the 32-bit pixels out in an array of `unsigned long`, 64 bits each on LP64.
    image_.assign(cursor->pixels, cursor->pixels + imageWidth_ * imageHeight_);
    XFree(cursor);
}

bool CursorOverlay::update(Window relativeTo, int originX, int originY, int width, int height) {
    bool imageChanged = stale_;
    if (stale_) {
        fetchImage();
    }
    Window rootReturn = None, child = None;
    int rootX = 0, rootY = 0, windowX = 0, windowY = 0;
    unsigned int mask = 0;
    bool onScreen = XQueryPointer(display_, relativeTo, &rootReturn, &child, &rootX, &rootY,
                                  &windowX, &windowY, &mask) != 0;
    int x = windowX - originX - hotX_, y = windowY - originY - hotY_;
    bool shown = onScreen && !image_.empty() && x < width && y < height && x + imageWidth_ > 0 &&
                 y + imageHeight_ > 0;
    bool changed = shown != shown_ || (shown && (x != x_ || y != y_ || imageChanged));
    x_ = x;
    y_ = y;
    shown_ = shown;
    return changed;
}

void CursorOverlay::blend(std::uint8_t* pixels, int width, int height, int stride) const {
    if (!shown_) {
        return;
    }
    int top = std::max(0, -y_), bottom = std::min(imageHeight_, height - y_);
    int left = std::max(0, -x_), right = std::min(imageWidth_, width - x_);
    for (int row = top; row < bottom; ++row) {
        std::uint8_t* out =
            pixels + static_cast<std::ptrdiff_t>(y_ + row) * stride + (x_ + left) * 4;
        const std::uint32_t* in = image_.data() + row * imageWidth_ + left;
        for (int column = left; column < right; ++column, ++in, out += 4) {
            std::uint32_t argb = *in;
            std::uint32_t alpha = argb >> 24;
            if (alpha == 0) {
                continue;
            }
            // Premultiplied "over": out = cursor + out × (1 − alpha).
            std::uint32_t keep = 255 - alpha;
            out[0] = static_cast<std::uint8_t>((argb & 0xff) + (out[0] * keep + 127) / 255);
            out[1] = static_cast<std::uint8_t>(((argb >> 8) & 0xff) + (out[1] * keep + 127) / 255);
            out[2] = static_cast<std::uint8_t>(((argb >> 16) & 0xff) + (out[2] * keep + 127) / 255);
        }
    }
}

}  // namespace pavix
