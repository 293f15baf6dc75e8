#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace pavix {

// How the pixels of a frame are laid out.
enum class PixelLayout {
    bgra,  // 32 bits a pixel, blue first; rows `stride` bytes apart
    // 4:2:0 YCbCr with BT.709 coefficients in limited range, as a recording is encoded: the Y
    // plane (rows `stride` bytes apart), then Cb and Cr (rows `stride / 2` apart, half as many);
    // even width, height and stride
    i420,
};

// One captured picture, stamped with the monotonic clock at capture. `complete` is false for a
// tick where nothing changed (an idle frame), which carries no new picture and is never written.
struct VideoFrame {
    int width = 0;
    int height = 0;
    int stride = 0;
    std::shared_ptr<const std::vector<std::uint8_t>> pixels;
    std::int64_t captureTimeNs = 0;  // CLOCK_MONOTONIC
    bool complete = true;
    PixelLayout layout = PixelLayout::bgra;

    // The bytes `pixels` must hold for this geometry; 0 when the geometry is impossible.
    std::int64_t bytesNeeded() const {
        if (width <= 0 || height <= 0) {
            return 0;
        }
        if (layout == PixelLayout::i420) {
            if (width % 2 != 0 || height % 2 != 0 || stride % 2 != 0 || stride < width) {
                return 0;
            }
            return std::int64_t{stride} * height * 3 / 2;
        }
        const std::int64_t row = std::int64_t{width} * 4;
        return stride < row ? 0 : std::int64_t{stride} * (height - 1) + row;
    }
    // Whether `pixels` holds a picture of this geometry.
    bool holdsPicture() const {
        const auto needed = bytesNeeded();
        return pixels && needed > 0 && static_cast<std::int64_t>(pixels->size()) >= needed;
    }
};

}  // namespace pavix
