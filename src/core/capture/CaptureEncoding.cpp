#include "core/capture/CaptureEncoding.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace pavix {
namespace {

// Pixel-count overflow is a programming fault.
std::int64_t pixelCount(std::int64_t width, std::int64_t height) {
    std::int64_t p = 0;
    if (__builtin_mul_overflow(width, height, &p)) {
        std::fprintf(stderr, "pavix: CaptureEncoding: pixel count of %lldx%lld overflows\n",
                     static_cast<long long>(width), static_cast<long long>(height));
        std::abort();
    }
    return p;
}

}  // namespace

std::vector<CaptureEncoding> CaptureEncoding::candidates(double width, double height,
                                                         double pixelScale) {
    std::vector<CaptureEncoding> result;
    for (const Cap& cap : caps) {
        auto geometry = CaptureGeometry::make(width, height, pixelScale, cap.width, cap.height);
        if (!geometry) {
            continue;  // invalid input fails for every cap; a tiny source fails for each too
        }
        const bool duplicate = std::any_of(result.begin(), result.end(),
                                           [&](const auto& e) { return e.size == *geometry; });
        if (duplicate) {
            continue;
        }
        result.push_back(
            CaptureEncoding{*geometry, bitrateFor(geometry->width, geometry->height),
                            pixelCount(geometry->width, geometry->height) > hardwarePixelCount});
    }
    return result;
}

std::int64_t CaptureEncoding::bitrateFor(std::int64_t width, std::int64_t height) {
    const double p = static_cast<double>(pixelCount(width, height));
    double thousands = 0;
    if (p > 2'073'600.0) {
        thousands = std::round(p * 6'000'000.0 / 3'686'400.0 / 1000.0);
    } else if (p > 921'600.0) {
        thousands = std::round(p * 4'000'000.0 / 2'073'600.0 / 1000.0);
    } else {
        // Deliberately more generous than the middle tier's line: just below 921,600 pixels a
        // small window, which carries fine text, gets more bits than the tier would give it.
        thousands = std::ceil(2.0 * 3'000'000.0 * std::pow(p / 2'073'600.0, 0.95) / 1000.0);
    }
    return 1000 * static_cast<std::int64_t>(thousands);
}

std::optional<CaptureEncoding> CaptureEncoding::choose(
    const std::vector<CaptureEncoding>& candidates,
    const std::function<bool(const CaptureEncoding&)>& canEncode) {
    for (const auto& candidate : candidates) {
        if (canEncode(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

}  // namespace pavix
