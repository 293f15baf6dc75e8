#pragma once

#include <optional>

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

    // The CPU seconds this machine spends encoding one frame of fast-moving content at
    // `settings` (its size and effort), measured by encoding a short synthetic clip; may be
    // remembered and scaled to other sizes. Absent for a hardware encoder, whose work is not the
    // machine's CPU, and when it could not be measured. Blocking like `canOpen`.
    virtual std::optional<double> cpuSecondsPerFrame(const VideoEncoderSettings& settings) = 0;
};

}  // namespace pavix
