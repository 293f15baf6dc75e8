// The rows are converted by hand-written AVX2 where the processor has it, 32 pixels at a time,
// and by the plain loops below for the rest of a row and on other processors. Both compute the
// same fixed-point sums, so their output is identical to the bit.
#pragma GCC optimize("O3")

#include "linux/FfmpegColourConversion.h"

#include "linux/CpuFeatures.h"

#include <immintrin.h>

#include <cstddef>

namespace pavix::ffmpeg {
namespace {

// Y' = 16 + 219/255 (0.2126 R + 0.7152 G + 0.0722 B), in 15-bit fixed point so that each
// coefficient fits a signed 16-bit multiplier.
constexpr int kYR = 5983, kYG = 20127, kYB = 2032;
constexpr int kYOffset = (16 << 15) + (1 << 14);
// Cb, Cr = 128 + 224/255 (...), on the sum of four pixels: 18-bit fixed point.
constexpr int kUR = -6596, kUG = -22189, kUB = 28785;
constexpr int kVR = 28785, kVG = -26145, kVB = -2640;
constexpr int kCOffset = (128 << 18) + (1 << 17);

// Pixels [from, to) of a row.
void lumaRow(const std::uint8_t* __restrict src, std::uint8_t* __restrict dst, int from, int to) {
    for (int x = from; x < to; ++x) {
        const int b = src[4 * x], g = src[4 * x + 1], r = src[4 * x + 2];
        dst[x] = static_cast<std::uint8_t>((kYR * r + kYG * g + kYB * b + kYOffset) >> 15);
    }
}

// Chroma samples [from, to) of a pair of rows; `step` 1 for a plane of its own, 2 interleaved.
void chromaRow(const std::uint8_t* __restrict r0, const std::uint8_t* __restrict r1,
               std::uint8_t* __restrict u, std::uint8_t* __restrict v, int step, int from, int to) {
    for (int x = from; x < to; ++x) {
        const int b = r0[8 * x] + r0[8 * x + 4] + r1[8 * x] + r1[8 * x + 4];
        const int g = r0[8 * x + 1] + r0[8 * x + 5] + r1[8 * x + 1] + r1[8 * x + 5];
        const int r = r0[8 * x + 2] + r0[8 * x + 6] + r1[8 * x + 2] + r1[8 * x + 6];
        u[step * x] = static_cast<std::uint8_t>((kUR * r + kUG * g + kUB * b + kCOffset) >> 18);
        v[step * x] = static_cast<std::uint8_t>((kVR * r + kVG * g + kVB * b + kCOffset) >> 18);
    }
}

// One chroma component of 16 pixels of two rows, from their sums per load (see below): per
// lane, columns in order, then pairs of columns: samples (0 1 4 5 | 2 3 6 7).
__attribute__((target("avx2"))) inline __m256i chromaSamples(const __m256i (&sum)[2][2],
                                                             __m256i coefficients, __m256i offset) {
    __m256i columns[2];
    for (int load = 0; load < 2; ++load) {
        columns[load] = _mm256_hadd_epi32(_mm256_madd_epi16(sum[load][0], coefficients),
                                          _mm256_madd_epi16(sum[load][1], coefficients));
    }
    return _mm256_srai_epi32(_mm256_add_epi32(_mm256_hadd_epi32(columns[0], columns[1]), offset),
                             18);
}

// One pair of rows, 32 pixels at a time; returns the pixels it converted (a multiple of 32).
// Each 32-byte load holds eight pixels, four per 128-bit lane. Widened to 16 bits, two pixels
// per lane, one multiply-add gives each pixel's (B, G) and (R, A) terms and one horizontal add
// their sums, in order within each lane: the lanes are put back in order at the store.
__attribute__((target("avx2"))) int pairAvx2(const std::uint8_t* r0, const std::uint8_t* r1,
                                             std::uint8_t* y0, std::uint8_t* y1, std::uint8_t* u,
                                             std::uint8_t* v, bool interleaved, int width) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i cy =
        _mm256_setr_epi16(kYB, kYG, kYR, 0, kYB, kYG, kYR, 0, kYB, kYG, kYR, 0, kYB, kYG, kYR, 0);
    const __m256i cu =
        _mm256_setr_epi16(kUB, kUG, kUR, 0, kUB, kUG, kUR, 0, kUB, kUG, kUR, 0, kUB, kUG, kUR, 0);
    const __m256i cv =
        _mm256_setr_epi16(kVB, kVG, kVR, 0, kVB, kVG, kVR, 0, kVB, kVG, kVR, 0, kVB, kVG, kVR, 0);
    const __m256i yOffset = _mm256_set1_epi32(kYOffset);
    const __m256i cOffset = _mm256_set1_epi32(kCOffset);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i luma[2][4], chromaU[2], chromaV[2];
        for (int half = 0; half < 2; ++half) {  // pixels 0–15, then 16–31
            __m256i sum[2][2];  // the two rows added, per load: pixels (0 1 | 4 5), (2 3 | 6 7)
            for (int row = 0; row < 2; ++row) {
                const std::uint8_t* source = (row == 0 ? r0 : r1) + 4 * (x + 16 * half);
                for (int load = 0; load < 2; ++load) {
                    const __m256i pixels =
                        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(source + 32 * load));
                    const __m256i low = _mm256_unpacklo_epi8(pixels, zero);
                    const __m256i high = _mm256_unpackhi_epi8(pixels, zero);
                    luma[row][2 * half + load] =
                        _mm256_hadd_epi32(_mm256_madd_epi16(low, cy), _mm256_madd_epi16(high, cy));
                    sum[load][0] = row == 0 ? low : _mm256_add_epi16(sum[load][0], low);
                    sum[load][1] = row == 0 ? high : _mm256_add_epi16(sum[load][1], high);
                }
            }
            chromaU[half] = chromaSamples(sum, cu, cOffset);
            chromaV[half] = chromaSamples(sum, cv, cOffset);
        }
        for (int row = 0; row < 2; ++row) {
            __m256i words[2];
            for (int i = 0; i < 2; ++i) {
                words[i] = _mm256_packs_epi32(
                    _mm256_srai_epi32(_mm256_add_epi32(luma[row][2 * i], yOffset), 15),
                    _mm256_srai_epi32(_mm256_add_epi32(luma[row][2 * i + 1], yOffset), 15));
            }
            // Groups of four pixels per lane: (0 8 16 24 | 4 12 20 28); the permutation orders
            // them.
            const __m256i bytes =
                _mm256_permutevar8x32_epi32(_mm256_packus_epi16(words[0], words[1]), order);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>((row == 0 ? y0 : y1) + x), bytes);
        }
        // Pairs of samples per lane: (U 0 1 4 5 8 9 12 13, V … | U 2 3 6 7 10 11 14 15, V …).
        const __m256i packed = _mm256_packus_epi16(_mm256_packs_epi32(chromaU[0], chromaU[1]),
                                                   _mm256_packs_epi32(chromaV[0], chromaV[1]));
        const __m128i lane0 = _mm256_castsi256_si128(packed);
        const __m128i lane1 = _mm256_extracti128_si256(packed, 1);
        const __m128i us = _mm_unpacklo_epi16(lane0, lane1), vs = _mm_unpackhi_epi16(lane0, lane1);
        if (interleaved) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x), _mm_unpacklo_epi8(us, vs));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x + 16), _mm_unpackhi_epi8(us, vs));
        } else {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x / 2), us);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x / 2), vs);
        }
    }
    return x;
}

void convert(const std::uint8_t* bgra, int stride, int width, int height, std::uint8_t* y,
             int yStride, std::uint8_t* u, int uStride, std::uint8_t* v, int vStride,
             bool interleaved) {
    const bool avx2 = hasAvx2();
    const int step = interleaved ? 2 : 1;
    for (int row = 0; row + 1 < height; row += 2) {
        const std::uint8_t* r0 = bgra + std::ptrdiff_t(row) * stride;
        const std::uint8_t* r1 = r0 + stride;
        std::uint8_t* y0 = y + std::ptrdiff_t(row) * yStride;
        std::uint8_t* y1 = y0 + yStride;
        std::uint8_t* uLine = u + std::ptrdiff_t(row / 2) * uStride;
        std::uint8_t* vLine = v + std::ptrdiff_t(row / 2) * vStride;
        const int done = avx2 ? pairAvx2(r0, r1, y0, y1, uLine, vLine, interleaved, width) : 0;
        lumaRow(r0, y0, done, width);
        lumaRow(r1, y1, done, width);
        chromaRow(r0, r1, uLine, vLine, step, done / 2, width / 2);
    }
}

}  // namespace

void bgraToI420Bt709(const std::uint8_t* bgra, int stride, int width, int height, std::uint8_t* y,
                     int yStride, std::uint8_t* u, int uStride, std::uint8_t* v, int vStride) {
    convert(bgra, stride, width, height, y, yStride, u, uStride, v, vStride, false);
}

void bgraToNv12Bt709(const std::uint8_t* bgra, int stride, int width, int height, std::uint8_t* y,
                     int yStride, std::uint8_t* uv, int uvStride) {
    convert(bgra, stride, width, height, y, yStride, uv, uvStride, uv + 1, uvStride, true);
}

}  // namespace pavix::ffmpeg
