#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace pavix {

// A few pixel buffers reused from frame to frame, so that a running capture allocates nothing.
// A buffer returns to the pool when the last frame holding it is released downstream.
class X11FramePool {
  public:
    explicit X11FramePool(std::size_t capacity = 4) : capacity_(capacity) {}

    // A free buffer of `size` bytes, or nullptr when every buffer is still held (the consumer
    // is behind; the caller drops the frame rather than grow without bound).
    std::shared_ptr<std::vector<std::uint8_t>> acquire(std::size_t size);

  private:
    std::size_t capacity_;
    std::vector<std::shared_ptr<std::vector<std::uint8_t>>> buffers_;
};

}  // namespace pavix
