#pragma once

#include "platform/MediaReader.h"

namespace pavix {

// Reads a video's duration with libavformat (MediaProbe).
class FfmpegMediaReader : public MediaReader {
  public:
    std::optional<double> duration(const std::string& path) override;
};

}  // namespace pavix
