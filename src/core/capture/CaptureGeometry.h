#pragma once

#include <cstdint>
#include <optional>

namespace pavix {

// A pixel size for the video: both sides even and at least 2, so that the H.264 encoder takes it.
struct CaptureGeometry {
    std::int64_t width = 2;
    std::int64_t height = 2;

    static constexpr double maxWidth = 2560.0;
    static constexpr double maxHeight = 1440.0;

    // The geometry of a source `width` × `height` points at `pixelScale` pixels per point,
    // shrunk (never enlarged, aspect kept) to fit `maxWidth` × `maxHeight` and rounded down to
    // even sides. Nothing when an input is not finite and positive or a side falls below 2.
    static std::optional<CaptureGeometry> make(double width, double height, double pixelScale = 1.0,
                                               double maxWidth = CaptureGeometry::maxWidth,
                                               double maxHeight = CaptureGeometry::maxHeight);

    bool operator==(const CaptureGeometry&) const = default;
};

}  // namespace pavix
