#pragma once

// What one frame costs the encoder on this machine: a short synthetic clip of fast-moving
// content (scrolling text-like lines above a picture whose every pixel changes each frame) is
// encoded with the recording's encoder, and the CPU time of the whole process over the
// encoding, less the painting of the pictures, is divided by the frames. CPU time rather than
// elapsed time: it does not depend on what else the machine is doing at that moment.

#include <optional>

#include "platform/VideoEncoder.h"

namespace pavix::ffmpeg {

// Frames encoded before the measurement starts (the first is a key frame), and measured, in
// groups of `costGroupFrames`.
inline constexpr int costWarmUpFrames = 4;
inline constexpr int costGroupFrames = 10;
inline constexpr int costGroups = 3;

// CPU seconds per frame at `settings`, the cheapest of `groups` groups; absent when the encoder
// cannot be opened or refuses a frame. Blocking: a 1920×1080 measurement of three groups takes a
// few tenths of a second.
std::optional<double> measureCpuPerFrame(const VideoEncoderSettings& settings,
                                         int groups = costGroups);

}  // namespace pavix::ffmpeg
