#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "core/capture/CaptureFilter.h"
#include "platform/CaptureStream.h"
#include "platform/StillEncoder.h"

namespace pavix::CaptureStill {

// Starts `stream` on `filter` at `width` × `height` pixels (even), takes its first complete
// frame, stops it and encodes the frame as PNG. Blocking: call it off the model executor.
// Throws the stream's CaptureError, or CaptureError -3802 when no frame arrives within
// `timeout`.
std::vector<std::uint8_t> take(CaptureStream& stream, StillEncoder& encoder,
                               const CaptureFilter& filter, int width, int height,
                               std::chrono::milliseconds timeout);

}  // namespace pavix::CaptureStill
