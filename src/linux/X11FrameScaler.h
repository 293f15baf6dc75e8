#pragma once

#include <cstdint>
#include <vector>

#include "linux/BilinearReducer.h"

struct SwsContext;

namespace pavix {

// Fits a BGRA picture into a frame of another size, keeping its aspect, centred on black.
// A picture of the frame's size is copied (or only converted) as it is.
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

    // The same fit, into 4:2:0 with BT.709 coefficients in limited range (the planes of an even
    // `targetWidth` × `targetHeight`); a picture of the frame's size is only converted, a larger
    // one reduced bilinearly in the same pass.
    void scaleToI420(const std::uint8_t* source, int sourceWidth, int sourceHeight,
                     int sourceStride, int targetWidth, int targetHeight, std::uint8_t* y,
                     int yStride, std::uint8_t* u, std::uint8_t* v, int chromaStride);

  private:
    bool draft_;
    SwsContext* context_ = nullptr;
    SwsContext* planarContext_ = nullptr;
    BilinearReducer reducer_;
    std::vector<std::uint8_t> converted_;  // a picture in 4:2:0 at its own size, to be enlarged
};

}  // namespace pavix
