#pragma once

#include "platform/VideoEncoder.h"

namespace pavix {

// Asks the machine whether it can open a video encoder of the given size with the given
// settings, by opening and closing a real encoder. With `settings.requiresHardware` only a
// hardware encoder counts. Blocking and possibly slow (tens of milliseconds): call it off the
// model executor, never during a recording.
class EncoderProbe {
  public:
    virtual ~EncoderProbe() = default;
    virtual bool canOpen(const VideoEncoderSettings& settings) = 0;
};

}  // namespace pavix
