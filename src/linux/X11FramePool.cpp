#include "linux/X11FramePool.h"

namespace pavix {

std::shared_ptr<std::vector<std::uint8_t>> X11FramePool::acquire(std::size_t size) {
    for (auto& buffer : buffers_) {
        // Only the pool hands out copies, and only on this thread, so a count of one cannot
        // rise behind our back.
        if (buffer.use_count() == 1) {
            if (buffer->size() != size) {
                buffer->assign(size, 0);
            }
            return buffer;
        }
    }
    if (buffers_.size() >= capacity_) {
        return nullptr;
    }
    buffers_.push_back(std::make_shared<std::vector<std::uint8_t>>(size, 0));
    return buffers_.back();
}

}  // namespace pavix
