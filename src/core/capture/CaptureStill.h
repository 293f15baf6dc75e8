#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "core/capture/CaptureFilter.h"
#include "platform/CaptureStream.h"
#include "platform/StillEncoder.h"

namespace pavix {

// A still picture of one window's own content at `width` × `height` pixels (even), even where
// other windows cover it. Blocking; throws CaptureError when the window cannot be captured.
using WindowPicture = std::function<VideoFrame(std::uint32_t windowID, int width, int height)>;

}  // namespace pavix

namespace pavix::CaptureStill {

// Starts `stream` on `filter` at `width` × `height` pixels (even), takes its first complete
// frame and stops it. Blocking: call it off the model executor. Throws the stream's
// CaptureError, or CaptureError -3802 when no frame arrives within `timeout`.
VideoFrame firstFrame(CaptureStream& stream, const CaptureFilter& filter, int width, int height,
                      std::chrono::milliseconds timeout);

// The first frame as above, encoded as PNG. Throws as firstFrame does.
std::vector<std::uint8_t> take(CaptureStream& stream, StillEncoder& encoder,
                               const CaptureFilter& filter, int width, int height,
                               std::chrono::milliseconds timeout);

}  // namespace pavix::CaptureStill
