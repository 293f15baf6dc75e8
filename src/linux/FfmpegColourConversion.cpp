// Vectorised by the compiler: keep these loops simple and branch-free.
#pragma GCC optimize("O3")

#include "linux/FfmpegColourConversion.h"

#include <cstddef>

namespace pavix::ffmpeg {
namespace {

// Y' = 16 + 219/255 (0.2126 R + 0.7152 G + 0.0722 B), in 16-bit fixed point.
constexpr int kYR = 11966, kYG = 40254, kYB = 4064;
constexpr int kYOffset = (16 << 16) + (1 << 15);
// Cb, Cr = 128 + 224/255 (...), on the sum of four pixels: 18-bit fixed point.
constexpr int kUR = -6596, kUG = -22189, kUB = 28785;
constexpr int kVR = 28785, kVG = -26145, kVB = -2640;
constexpr int kCOffset = (128 << 18) + (1 << 17);

inline void lumaRow(const std::uint8_t* __restrict src, std::uint8_t* __restrict dst, int width) {
    for (int x = 0; x < width; ++x) {
        const int b = src[4 * x], g = src[4 * x + 1], r = src[4 * x + 2];
        dst[x] = static_cast<std::uint8_t>((kYR * r + kYG * g + kYB * b + kYOffset) >> 16);
    }
}

template <int Step>
inline void chromaRow(const std::uint8_t* __restrict r0, const std::uint8_t* __restrict r1,
                      std::uint8_t* __restrict u, std::uint8_t* __restrict v, int halfWidth) {
    for (int x = 0; x < halfWidth; ++x) {
        const int b = r0[8 * x] + r0[8 * x + 4] + r1[8 * x] + r1[8 * x + 4];
        const int g = r0[8 * x + 1] + r0[8 * x + 5] + r1[8 * x + 1] + r1[8 * x + 5];
        const int r = r0[8 * x + 2] + r0[8 * x + 6] + r1[8 * x + 2] + r1[8 * x + 6];
        u[Step * x] = static_cast<std::uint8_t>((kUR * r + kUG * g + kUB * b + kCOffset) >> 18);
        v[Step * x] = static_cast<std::uint8_t>((kVR * r + kVG * g + kVB * b + kCOffset) >> 18);
    }
}

}  // namespace

__attribute__((target_clones("avx2", "default")))
void bgraToI420Bt709(const std::uint8_t* bgra, int stride, int width, int height,
                     std::uint8_t* y, int yStride, std::uint8_t* u, int uStride,
                     std::uint8_t* v, int vStride) {
    for (int row = 0; row + 1 < height; row += 2) {
        const std::uint8_t* r0 = bgra + std::ptrdiff_t(row) * stride;
        const std::uint8_t* r1 = r0 + stride;
        lumaRow(r0, y + std::ptrdiff_t(row) * yStride, width);
        lumaRow(r1, y + std::ptrdiff_t(row + 1) * yStride, width);
        chromaRow<1>(r0, r1, u + std::ptrdiff_t(row / 2) * uStride,
                     v + std::ptrdiff_t(row / 2) * vStride, width / 2);
    }
}

__attribute__((target_clones("avx2", "default")))
void bgraToNv12Bt709(const std::uint8_t* bgra, int stride, int width, int height,
                     std::uint8_t* y, int yStride, std::uint8_t* uv, int uvStride) {
    for (int row = 0; row + 1 < height; row += 2) {
        const std::uint8_t* r0 = bgra + std::ptrdiff_t(row) * stride;
        const std::uint8_t* r1 = r0 + stride;
        lumaRow(r0, y + std::ptrdiff_t(row) * yStride, width);
        lumaRow(r1, y + std::ptrdiff_t(row + 1) * yStride, width);
        std::uint8_t* line = uv + std::ptrdiff_t(row / 2) * uvStride;
        chromaRow<2>(r0, r1, line, line + 1, width / 2);
    }
}

}  // namespace pavix::ffmpeg
