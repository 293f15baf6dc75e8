#pragma once

#include <cstdint>

struct SwsContext;

namespace pavix {

// Fits a BGRA picture into a BGRA frame of another size, keeping its aspect, centred on black.
// A picture of the frame's size is copied as it is.
class X11FrameScaler {
  public:
    X11FrameScaler() = default;
    ~X11FrameScaler();
    X11FrameScaler(const X11FrameScaler&) = delete;
    X11FrameScaler& operator=(const X11FrameScaler&) = delete;

    void scale(const std::uint8_t* source, int sourceWidth, int sourceHeight, int sourceStride,
               std::uint8_t* target, int targetWidth, int targetHeight, int targetStride);

  private:
    SwsContext* context_ = nullptr;
};

}  // namespace pavix
