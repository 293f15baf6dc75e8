#pragma once

#include <X11/Xlib.h>

#include "linux/XShmImage.h"

namespace pavix {

// The part of a capture stream that knows one kind of source: which notifications concern it,
// whether it changed, and how to read its picture. Used on the capture thread only.
class X11Grabber {
  public:
    // (Not named Status: Xlib defines that as a macro.)
    enum class SourceState { visible, hidden, vanished };

    // Where the picture's top-left lies, as a window and an offset in it.
    struct Origin {
        Window window = None;
        int x = 0, y = 0;
    };

    virtual ~X11Grabber() = default;
    // Consumes a notification that concerns the source.
    virtual bool handle(const XEvent& event) = 0;
    virtual SourceState state() = 0;
    // Whether the picture may have changed since the last call; starts over.
    virtual bool takeChanged() = 0;
    // Reads the picture into an image owned by the grabber (which the caller may draw on until
    // the next call); nullptr when it cannot be read this tick.
    virtual XShmImage* grab() = 0;
    virtual Origin origin() const = 0;
};

}  // namespace pavix
