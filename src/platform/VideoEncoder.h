#pragma once

#include <cstdint>
#include <string>

#include "platform/VideoFrame.h"

namespace pavix {

// How much work the encoder spends on each frame. `reduced` takes about two thirds of the CPU
// time of `full` for a somewhat coarser picture at the same bit rate; a machine that cannot hold
// the frame rate at `full` records at `reduced` rather than dropping frames.
enum class EncoderEffort { full, reduced };

// What a recording is encoded with: H.264 High profile, no B-frames, a key frame at least every
// `maxKeyFrameIntervalNs`, BT.709 colours in limited range, `bitrate` on average, frames expected
// at `frameRate` per second. With `requiresHardware` only a hardware encoder may be used.
struct VideoEncoderSettings {
    int width = 0;             // even, at least 2
    int height = 0;            // even, at least 2
    std::int64_t bitrate = 0;  // bits per second
    int frameRate = 60;
    std::int64_t maxKeyFrameIntervalNs = 2'000'000'000;
    bool requiresHardware = false;
    EncoderEffort effort = EncoderEffort::full;  // a software encoder's; hardware ignores it
};

// One H.264 video being written to one MPEG-4 file. Used from one thread at a time (the
// writer's encoding thread); blocking.
//
// Failures: a method throws an error of its own when it has one worth showing (its `what()` is
// then used as the failure's description); it returns false when it failed without one, and the
// caller supplies the sentence. After any failure only `cancel` is called.
class VideoEncoder {
  public:
    virtual ~VideoEncoder() = default;

    // Creates the file at `path` (owner read and write only) and opens the encoder.
    virtual bool open(const std::string& path, const VideoEncoderSettings& settings) = 0;

    // Encodes one complete frame shown at `ptsNs` nanoseconds after the start of the file's
    // timeline. Times are strictly increasing. A frame of another size than the settings' is
    // scaled to fit.
    virtual bool append(const VideoFrame& frame, std::int64_t ptsNs) = 0;

    // Flushes the encoder and completes the file; the video lasts until `endNs` on the same
    // timeline (never before the last frame's time). True when the file is complete.
    virtual bool finish(std::int64_t endNs) = 0;

    // Abandons the file: stops encoding and closes it as it is. The partial file is left to
    // the caller.
    virtual void cancel() = 0;
};

}  // namespace pavix
