#pragma once

#include <functional>
#include <memory>

#include "platform/CaptureStream.h"
#include "platform/EncoderProbe.h"
#include "platform/MediaReader.h"
#include "platform/StillEncoder.h"
#include "platform/VideoEncoder.h"
#include "platform/WindowLayers.h"

namespace pavix {

// The platform parts a capture is made of. Every pointer outlives the capture; a part left
// empty makes the operations that need it fail with their usual sentence.
struct CapturePlatform {
    // A new, stopped capture stream; one per start attempt and per still picture.
    std::function<std::unique_ptr<CaptureStream>()> streams;
    // A new video encoder; one per start attempt.
    std::function<std::unique_ptr<VideoEncoder>()> encoders;
    EncoderProbe* probe = nullptr;
    MediaReader* media = nullptr;
    WindowLayers* layers = nullptr;
    StillEncoder* stills = nullptr;
};

}  // namespace pavix
