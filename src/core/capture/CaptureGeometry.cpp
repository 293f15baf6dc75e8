#include "core/capture/CaptureGeometry.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace pavix {
namespace {

// A size outside the 64-bit range can only come from absurd caps: a programming fault.
std::int64_t toInteger(double value) {
    if (!(value >= -9.2e18 && value <= 9.2e18)) {
        std::fprintf(stderr, "pavix: CaptureGeometry: size %g is out of range\n", value);
        std::abort();
    }
    return static_cast<std::int64_t>(value);
}

bool finitePositive(double value) { return std::isfinite(value) && value > 0; }

}  // namespace

std::optional<CaptureGeometry> CaptureGeometry::make(double width, double height, double pixelScale,
                                                     double maxWidth, double maxHeight) {
    if (!finitePositive(width) || !finitePositive(height) || !finitePositive(pixelScale)) {
        return std::nullopt;
    }
    const double pw = width * pixelScale;
    const double ph = height * pixelScale;
    if (!std::isfinite(pw) || !std::isfinite(ph)) {
        return std::nullopt;
    }
    double s = std::min(maxWidth / pw, maxHeight / ph);
    s = std::min(s, 1.0);
    const std::int64_t w = toInteger(std::floor(pw * s));
    const std::int64_t h = toInteger(std::floor(ph * s));
    if (w < 2 || h < 2) {
        return std::nullopt;
    }
    return CaptureGeometry{w & ~std::int64_t{1}, h & ~std::int64_t{1}};
}

}  // namespace pavix
