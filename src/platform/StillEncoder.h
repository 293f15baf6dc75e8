#pragma once

#include <cstdint>
#include <vector>

#include "platform/VideoFrame.h"

namespace pavix {

// Turns one captured picture into a PNG image. Blocking; call it off the model executor.
class StillEncoder {
  public:
    virtual ~StillEncoder() = default;
    // The PNG bytes of a complete frame (its BGRA pixels, the fourth byte ignored). Throws when
    // the frame has no picture or cannot be encoded.
    virtual std::vector<std::uint8_t> png(const VideoFrame& frame) = 0;
};

}  // namespace pavix
