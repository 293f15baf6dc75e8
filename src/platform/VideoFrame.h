#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace pavix {

// One captured picture: 32-bit BGRA pixels, rows `stride` bytes apart, stamped with the
// monotonic clock at capture. `complete` is false for a tick where nothing changed (an idle
// frame), which carries no new picture and is never written.
struct VideoFrame {
    int width = 0;
    int height = 0;
    int stride = 0;
    std::shared_ptr<const std::vector<std::uint8_t>> pixels;
    std::int64_t captureTimeNs = 0;  // CLOCK_MONOTONIC
    bool complete = true;
};

}  // namespace pavix
