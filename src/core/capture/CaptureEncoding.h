#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "core/capture/CaptureGeometry.h"
#include "platform/VideoEncoder.h"

namespace pavix {

// One size and bit rate to record at. Candidates run from the largest size to the smallest;
// the capture session keeps those the machine can encode and falls back along them.
struct CaptureEncoding {
    CaptureGeometry size;
    std::int64_t bitrate = 0;                    // bits per second, a multiple of 1000
    bool requiresHardware = false;               // more pixels than 1920×1080
    EncoderEffort effort = EncoderEffort::full;  // chosen by EncoderBudget for this machine

    // Pixel count above which a size needs a hardware encoder (1920×1080).
    static constexpr std::int64_t hardwarePixelCount = 2'073'600;

    struct Cap {
        double width;
        double height;
    };
    static constexpr Cap caps[] = {{2560, 1440}, {1920, 1080}, {1280, 720}};

    // The encodings to try for a source of `width` × `height` points at `pixelScale`, largest
    // first, without duplicates; empty when the source cannot be recorded at all.
    static std::vector<CaptureEncoding> candidates(double width, double height, double pixelScale);

    // The bit rate for a pixel size. Not named `bitrate`: that is the field's name.
    static std::int64_t bitrateFor(std::int64_t width, std::int64_t height);

    // The first candidate, in order, that `canEncode` accepts.
    static std::optional<CaptureEncoding> choose(
        const std::vector<CaptureEncoding>& candidates,
        const std::function<bool(const CaptureEncoding&)>& canEncode);

    bool operator==(const CaptureEncoding&) const = default;
};

}  // namespace pavix
