#include "linux/X11FrameScaler.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace pavix {
namespace {

void fillBlack(std::uint8_t* target, int stride, int x, int y, int width, int height) {
    for (int row = y; row < y + height; ++row) {
        std::uint32_t* pixel =
            reinterpret_cast<std::uint32_t*>(target + std::ptrdiff_t(row) * stride) + x;
        std::fill(pixel, pixel + width, 0xff000000u);
    }
}

// Each target pixel is the mean of the source pixels at the quarter points of its area.
void sample(const std::uint8_t* source, int sourceWidth, int sourceHeight, int sourceStride,
            std::uint8_t* target, int width, int height, int targetStride) {
    auto at = [](int i, double quarter, int from, int to) {
        return std::min(from - 1, int((i + quarter) * from / to));
    };
    std::vector<int> columns(std::size_t(width) * 2);
    for (int x = 0; x < width; ++x) {
        columns[2 * x] = at(x, 0.25, sourceWidth, width) * 4;
        columns[2 * x + 1] = at(x, 0.75, sourceWidth, width) * 4;
    }
    for (int y = 0; y < height; ++y) {
        const std::uint8_t* upper =
            source + std::ptrdiff_t(at(y, 0.25, sourceHeight, height)) * sourceStride;
        const std::uint8_t* lower =
            source + std::ptrdiff_t(at(y, 0.75, sourceHeight, height)) * sourceStride;
        std::uint8_t* out = target + std::ptrdiff_t(y) * targetStride;
        for (int x = 0; x < width; ++x) {
            const int left = columns[2 * x], right = columns[2 * x + 1];
            for (int c = 0; c < 3; ++c) {
                out[4 * x + c] = std::uint8_t(
                    (upper[left + c] + upper[right + c] + lower[left + c] + lower[right + c] + 2) /
                    4);
            }
            out[4 * x + 3] = 0xff;
        }
    }
}

}  // namespace

X11FrameScaler::~X11FrameScaler() {
    sws_freeContext(context_);
}

void X11FrameScaler::scale(const std::uint8_t* source, int sourceWidth, int sourceHeight,
                           int sourceStride, std::uint8_t* target, int targetWidth,
                           int targetHeight, int targetStride) {
    if (sourceWidth == targetWidth && sourceHeight == targetHeight) {
        for (int row = 0; row < targetHeight; ++row) {
            std::memcpy(target + std::ptrdiff_t(row) * targetStride,
                        source + std::ptrdiff_t(row) * sourceStride, std::size_t(targetWidth) * 4);
        }
        return;
    }
    double factor =
        std::min(double(targetWidth) / sourceWidth, double(targetHeight) / sourceHeight);
    int width = std::clamp(int(std::lround(sourceWidth * factor)), 1, targetWidth);
    int height = std::clamp(int(std::lround(sourceHeight * factor)), 1, targetHeight);
    int left = (targetWidth - width) / 2, top = (targetHeight - height) / 2;
    fillBlack(target, targetStride, 0, 0, targetWidth, top);
    fillBlack(target, targetStride, 0, top + height, targetWidth, targetHeight - top - height);
    fillBlack(target, targetStride, 0, top, left, height);
    fillBlack(target, targetStride, left + width, top, targetWidth - left - width, height);

    std::uint8_t* placed = target + std::ptrdiff_t(top) * targetStride + left * 4;
    if (draft_ && width <= sourceWidth && height <= sourceHeight) {
        sample(source, sourceWidth, sourceHeight, sourceStride, placed, width, height,
               targetStride);
        return;
    }
    context_ =
        sws_getCachedContext(context_, sourceWidth, sourceHeight, AV_PIX_FMT_BGRA, width, height,
                             AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (context_ == nullptr) {
        fillBlack(target, targetStride, left, top, width, height);
        return;
    }
    const std::uint8_t* sourcePlanes[1] = {source};
    int sourceStrides[1] = {sourceStride};
    std::uint8_t* targetPlanes[1] = {placed};
    int targetStrides[1] = {targetStride};
    sws_scale(context_, sourcePlanes, sourceStrides, 0, sourceHeight, targetPlanes, targetStrides);
}

}  // namespace pavix
