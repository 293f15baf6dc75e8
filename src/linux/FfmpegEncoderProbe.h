#pragma once

#include "platform/EncoderProbe.h"

namespace pavix {

// Opens and closes a real H.264 encoder with the recording's settings (see FfmpegH264.h):
// libx264 for an ordinary size, only a hardware (VAAPI) encoder when hardware is required.
class FfmpegEncoderProbe : public EncoderProbe {
public:
    bool canOpen(const VideoEncoderSettings& settings) override;
};

}  // namespace pavix
