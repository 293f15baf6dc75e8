// The vertical blend is a plain loop over bytes, vectorised by the compiler; the horizontal one
// is hand-written AVX2, as each target pixel reads its own pair of source pixels.
#pragma GCC optimize("O3")

#include "linux/BilinearReducer.h"

#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "linux/CpuFeatures.h"
#include "linux/FfmpegColourConversion.h"

namespace pavix {
namespace {

constexpr int kUnit = 64;  // weights are in 64ths: a pair of them fits a signed byte

// Where target pixel `i`'s centre falls among `from` source pixels, `to` target pixels: the
// source pixel before it and the weight of the one after, in 16.16 fixed point.
auto tapOf(int i, int from, int to) {
    const std::int64_t centre = ((2 * std::int64_t(i) + 1) * from << 16) / (2 * to) - (1 << 15);
    const std::int64_t clamped = std::clamp<std::int64_t>(centre, 0, std::int64_t(from - 1) << 16);
    int first = int(clamped >> 16);
    int weight = int(((clamped & 0xffff) * kUnit + (1 << 15)) >> 16);
    if (first == from - 1) {  // the last pixel: blend it with itself, from the one before
        first = from - 2;
        weight = kUnit;
    }
    return std::pair{first, weight};
}

// One target pixel from the blended row: each channel (64 − w)·a + w·b.
void reducePixels(const std::uint8_t* blended, const int* offsets, const std::uint8_t* weights,
                  std::uint8_t* target, int from, int to) {
    for (int i = from; i < to; ++i) {
        const std::uint8_t* a = blended + offsets[i];
        const int w = weights[8 * i + 1];
        for (int c = 0; c < 4; ++c) {
            target[4 * i + c] = std::uint8_t(((kUnit - w) * a[c] + w * a[4 + c] + kUnit / 2) >> 6);
        }
    }
}

// Four target pixels: each pair of source pixels is loaded whole, its bytes reordered so that
// each channel's two values sit side by side, and one multiply-add with the pixel's weights
// gives the four channels, as 16-bit values two pixels per lane.
__attribute__((target("avx2"))) inline __m256i fourPixels(const std::uint8_t* blended,
                                                          const int* offsets,
                                                          const std::uint8_t* weights) {
    const __m256i pairs = _mm256_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15, 0,
                                           4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
    long long p[4];
    for (int k = 0; k < 4; ++k) {
        std::memcpy(&p[k], blended + offsets[k], 8);
    }
    const __m256i pixels = _mm256_shuffle_epi8(_mm256_setr_epi64x(p[0], p[1], p[2], p[3]), pairs);
    const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(weights));
    return _mm256_srli_epi16(
        _mm256_add_epi16(_mm256_maddubs_epi16(pixels, w), _mm256_set1_epi16(kUnit / 2)), 6);
}

// Eight target pixels at a time; returns the pixels it reduced.
__attribute__((target("avx2"))) int reduceAvx2(const std::uint8_t* blended, const int* offsets,
                                               const std::uint8_t* weights, std::uint8_t* target,
                                               int width) {
    int i = 0;
    for (; i + 8 <= width; i += 8) {
        // Pixels per lane after packing: (0 1 4 5 | 2 3 6 7); the permutation orders them.
        const __m256i packed =
            _mm256_packus_epi16(fourPixels(blended, offsets + i, weights + 8 * i),
                                fourPixels(blended, offsets + i + 4, weights + 8 * i + 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(target + 4 * i),
                            _mm256_permute4x64_epi64(packed, 0xd8));
    }
    return i;
}

}  // namespace

bool BilinearReducer::takes(int sourceWidth, int sourceHeight, int width, int height) {
    return width >= 2 && height >= 2 && width % 2 == 0 && height % 2 == 0 && width <= sourceWidth &&
           height <= sourceHeight;
}

void BilinearReducer::plan(int sourceWidth, int sourceHeight, int width, int height) {
    if (sourceWidth == sourceWidth_ && sourceHeight == sourceHeight_ && width == width_ &&
        height == height_) {
        return;
    }
    sourceWidth_ = sourceWidth, sourceHeight_ = sourceHeight, width_ = width, height_ = height;
    rows_.resize(std::size_t(height));
    for (int j = 0; j < height; ++j) {
        const auto [first, weight] = tapOf(j, sourceHeight, height);
        rows_[j] = {first, weight};
    }
    columnOffsets_.resize(std::size_t(width));
    columnWeights_.resize(std::size_t(width) * 8);
    for (int i = 0; i < width; ++i) {
        const auto [first, weight] = tapOf(i, sourceWidth, width);
        columnOffsets_[i] = 4 * first;
        for (int c = 0; c < 4; ++c) {
            columnWeights_[8 * i + 2 * c] = std::uint8_t(kUnit - weight);
            columnWeights_[8 * i + 2 * c + 1] = std::uint8_t(weight);
        }
    }
    blended_.resize(std::size_t(sourceWidth) * 4);
    reduced_.resize(std::size_t(width) * 4 * 2);
}

void BilinearReducer::reduceRow(const std::uint8_t* source, int sourceStride, const Tap& tap,
                                std::uint8_t* target) {
    const std::uint8_t* __restrict a = source + std::ptrdiff_t(tap.first) * sourceStride;
    const std::uint8_t* __restrict b = a + sourceStride;
    const std::uint8_t* row = a;  // a row on the centre of a source row needs no blend
    if (tap.weight != 0) {
        std::uint8_t* __restrict out = blended_.data();
        const int w = tap.weight, n = sourceWidth_ * 4;
        for (int k = 0; k < n; ++k) {
            out[k] = std::uint8_t(((kUnit - w) * a[k] + w * b[k] + kUnit / 2) >> 6);
        }
        row = out;
    }
    const int done =
        hasAvx2() ? reduceAvx2(row, columnOffsets_.data(), columnWeights_.data(), target, width_)
                  : 0;
    reducePixels(row, columnOffsets_.data(), columnWeights_.data(), target, done, width_);
}

void BilinearReducer::toI420(const std::uint8_t* source, int sourceWidth, int sourceHeight,
                             int sourceStride, int width, int height, std::uint8_t* y, int yStride,
                             std::uint8_t* u, std::uint8_t* v, int chromaStride) {
    plan(sourceWidth, sourceHeight, width, height);
    const int rowBytes = width * 4;
    for (int j = 0; j < height; j += 2) {
        reduceRow(source, sourceStride, rows_[j], reduced_.data());
        reduceRow(source, sourceStride, rows_[j + 1], reduced_.data() + rowBytes);
        ffmpeg::bgraToI420Bt709(reduced_.data(), rowBytes, width, 2,
                                y + std::ptrdiff_t(j) * yStride, yStride,
                                u + std::ptrdiff_t(j / 2) * chromaStride, chromaStride,
                                v + std::ptrdiff_t(j / 2) * chromaStride, chromaStride);
    }
}

}  // namespace pavix
