#include "linux/X11FrameScaler.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "linux/BilinearReducer.h"
#include "linux/FfmpegColourConversion.h"

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

// Where a picture lands in a frame of another size: as large as fits with its aspect kept,
// centred; every edge on a multiple of `grain` pixels.
struct Placement {
    int left, top, width, height;
};
Placement fit(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight, int grain) {
    const double factor =
        std::min(double(targetWidth) / sourceWidth, double(targetHeight) / sourceHeight);
    auto floor = [grain](int value) { return value / grain * grain; };
    const int width = std::clamp(floor(int(std::lround(sourceWidth * factor))), grain, targetWidth);
    const int height =
        std::clamp(floor(int(std::lround(sourceHeight * factor))), grain, targetHeight);
    return {floor((targetWidth - width) / 2), floor((targetHeight - height) / 2), width, height};
}

}  // namespace

X11FrameScaler::~X11FrameScaler() {
    sws_freeContext(context_);
    sws_freeContext(planarContext_);
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
    const auto [left, top, width, height] =
        fit(sourceWidth, sourceHeight, targetWidth, targetHeight, 1);
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

void X11FrameScaler::scaleToI420(const std::uint8_t* source, int sourceWidth, int sourceHeight,
                                 int sourceStride, int targetWidth, int targetHeight,
                                 std::uint8_t* y, int yStride, std::uint8_t* u, std::uint8_t* v,
                                 int chromaStride) {
    if (sourceWidth == targetWidth && sourceHeight == targetHeight) {
        ffmpeg::bgraToI420Bt709(source, sourceStride, targetWidth, targetHeight, y, yStride, u,
                                chromaStride, v, chromaStride);
        return;
    }
    // The placed picture starts and ends on even pixels, so that its chroma samples are its own.
    const auto [left, top, width, height] =
        fit(sourceWidth, sourceHeight, targetWidth, targetHeight, 2);
    // Black around it: Y 16, Cb and Cr 128 in limited range.
    auto fill = [](std::uint8_t* plane, int stride, int x, int row, int w, int h, int value) {
        for (int r = row; r < row + h; ++r) {
            std::memset(plane + std::ptrdiff_t(r) * stride + x, value, std::size_t(w));
        }
    };
    auto frame = [&](std::uint8_t* plane, int stride, int shift, int value) {
        const int l = left >> shift, t = top >> shift, w = width >> shift, h = height >> shift;
        const int fullWidth = targetWidth >> shift, fullHeight = targetHeight >> shift;
        fill(plane, stride, 0, 0, fullWidth, t, value);
        fill(plane, stride, 0, t + h, fullWidth, fullHeight - t - h, value);
        fill(plane, stride, 0, t, l, h, value);
        fill(plane, stride, l + w, t, fullWidth - l - w, h, value);
    };
    frame(y, yStride, 0, 16);
    frame(u, chromaStride, 1, 128);
    frame(v, chromaStride, 1, 128);
    if (BilinearReducer::takes(sourceWidth, sourceHeight, width, height)) {
        reducer_.toI420(source, sourceWidth, sourceHeight, sourceStride, width, height,
                        y + std::ptrdiff_t(top) * yStride + left, yStride,
                        u + std::ptrdiff_t(top / 2) * chromaStride + left / 2,
                        v + std::ptrdiff_t(top / 2) * chromaStride + left / 2, chromaStride);
        return;
    }
    // An enlarged picture is converted at its own size by the fast converter, then scaled
    // plane by plane: libswscale scales 8-bit planes quickly, where its own reading of BGRA
    // costs several times the conversion. An odd-sized picture, which the converter cannot
    // take, goes through libswscale in one pass, converted to BT.709 limited range on the way.
    const bool even = sourceWidth % 2 == 0 && sourceHeight % 2 == 0;
    auto* before = planarContext_;
    planarContext_ = sws_getCachedContext(
        planarContext_, sourceWidth, sourceHeight, even ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_BGRA,
        width, height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (planarContext_ == nullptr) {
        fill(y, yStride, left, top, width, height, 16);
        fill(u, chromaStride, left / 2, top / 2, width / 2, height / 2, 128);
        fill(v, chromaStride, left / 2, top / 2, width / 2, height / 2, 128);
        return;
    }
    if (!even && planarContext_ != before) {
        sws_setColorspaceDetails(planarContext_, sws_getCoefficients(SWS_CS_DEFAULT), 1,
                                 sws_getCoefficients(SWS_CS_ITU709), 0, 0, 1 << 16, 1 << 16);
    }
    const std::uint8_t* sourcePlanes[3] = {source, nullptr, nullptr};
    int sourceStrides[3] = {sourceStride, 0, 0};
    if (even) {
        const int chromaWidth = sourceWidth / 2;
        converted_.resize(std::size_t(sourceWidth) * sourceHeight * 3 / 2);
        std::uint8_t* cy = converted_.data();
        std::uint8_t* cu = cy + std::size_t(sourceWidth) * sourceHeight;
        std::uint8_t* cv = cu + std::size_t(chromaWidth) * (sourceHeight / 2);
        ffmpeg::bgraToI420Bt709(source, sourceStride, sourceWidth, sourceHeight, cy, sourceWidth,
                                cu, chromaWidth, cv, chromaWidth);
        sourcePlanes[0] = cy;
        sourcePlanes[1] = cu;
        sourcePlanes[2] = cv;
        sourceStrides[0] = sourceWidth;
        sourceStrides[1] = sourceStrides[2] = chromaWidth;
    }
    std::uint8_t* targetPlanes[3] = {y + std::ptrdiff_t(top) * yStride + left,
                                     u + std::ptrdiff_t(top / 2) * chromaStride + left / 2,
                                     v + std::ptrdiff_t(top / 2) * chromaStride + left / 2};
    int targetStrides[3] = {yStride, chromaStride, chromaStride};
    sws_scale(planarContext_, sourcePlanes, sourceStrides, 0, sourceHeight, targetPlanes,
              targetStrides);
}

}  // namespace pavix
