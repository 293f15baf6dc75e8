#pragma once

#include <cstdint>

namespace pavix::ffmpeg {

// BGRA (full-range RGB) to 4:2:0 YCbCr with BT.709 coefficients in limited range, each chroma
// sample the average of its 2×2 pixels. About four times faster than libswscale for the
// same-size case that every recorded frame takes (vectorised for AVX2 where the processor has
// it). `width` and `height` must be even.
void bgraToI420Bt709(const std::uint8_t* bgra, int stride, int width, int height,
                     std::uint8_t* y, int yStride, std::uint8_t* u, int uStride,
                     std::uint8_t* v, int vStride);

// The same into NV12 (interleaved Cb Cr plane), for hardware encoders.
void bgraToNv12Bt709(const std::uint8_t* bgra, int stride, int width, int height,
                     std::uint8_t* y, int yStride, std::uint8_t* uv, int uvStride);

}  // namespace pavix::ffmpeg
