#pragma once

#include <cstdint>

struct SwsContext;

namespace pavix {

// Fits a BGRA picture into a BGRA frame of another size, keeping its aspect, centred on black.
// A picture of the frame's size is copied as it is.
//
// A draft scaler reduces a picture by sampling: each pixel is the mean of four samples of the
// area it stands for. That costs well under a millisecond for a whole screen, where the
// filtered reduction a video gets costs tens, and looks rougher: for previews.
class X11FrameScaler {
  public:
    explicit X11FrameScaler(bool draft = false) : draft_(draft) {}
    ~X11FrameScaler();
    X11FrameScaler(const X11FrameScaler&) = delete;
    X11FrameScaler& operator=(const X11FrameScaler&) = delete;

    void scale(const std::uint8_t* source, int sourceWidth, int sourceHeight, int sourceStride,
               std::uint8_t* target, int targetWidth, int targetHeight, int targetStride);

  private:
    bool draft_;
    SwsContext* context_ = nullptr;
};

}  // namespace pavix
