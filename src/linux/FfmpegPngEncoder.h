#pragma once

#include "platform/StillEncoder.h"

namespace pavix {

// PNG through libavcodec's png encoder: the frame's BGRA pixels as 8-bit RGB.
class FfmpegPngEncoder : public StillEncoder {
  public:
    std::vector<std::uint8_t> png(const VideoFrame& frame) override;
};

}  // namespace pavix
