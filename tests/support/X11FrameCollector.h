#pragma once

// Gathers what a capture stream delivers, for tests that wait on it.

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "core/capture/CaptureError.h"
#include "platform/CaptureStream.h"
#include "platform/VideoFrame.h"

namespace pavix::test {

class X11FrameCollector {
  public:
    CaptureStreamHandlers handlers() {
        return {
            [this](const VideoFrame& frame) {
                std::lock_guard lock(mutex_);
                if (frame.complete) {
                    ++complete_;
                    last_ = frame;
                } else {
                    ++idle_;
                }
                times_.push_back(frame.captureTimeNs);
                changed_.notify_all();
            },
            [this](const CaptureError& error) {
                std::lock_guard lock(mutex_);
                errorCode_ = error.code();
                changed_.notify_all();
            },
            [this](bool visible) {
                std::lock_guard lock(mutex_);
                visibility_.push_back(visible);
                changed_.notify_all();
            },
        };
    }

    template <typename F>
    auto locked(F read) const {
        std::lock_guard lock(mutex_);
        return read();
    }

    // Waits until `condition` holds over the collector's state.
    bool waitFor(const std::function<bool(const X11FrameCollector&)>& condition,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return condition(*this); });
    }

    // Waits for the next complete frame after the ones seen so far.
    std::optional<VideoFrame> nextComplete(
        std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        int seen = completeCount();
        if (!waitFor([seen](const auto& c) { return c.complete_ > seen; }, timeout)) {
            return std::nullopt;
        }
        return lastComplete();
    }

    int completeCount() const {
        return locked([&] { return complete_; });
    }
    int idleCount() const {
        return locked([&] { return idle_; });
    }
    std::optional<int> errorCode() const {
        return locked([&] { return errorCode_; });
    }
    std::vector<bool> visibility() const {
        return locked([&] { return visibility_; });
    }
    std::vector<std::int64_t> times() const {
        return locked([&] { return times_; });
    }
    std::optional<VideoFrame> lastComplete() const {
        return locked([&] { return last_; });
    }

    // For conditions given to waitFor (the lock is then held).
    int complete() const { return complete_; }
    // The pixel at (x, y) of the last complete frame, or 0xffffffff before the first.
    std::uint32_t latestPixel(int x, int y) const {
        return last_ ? pixel(*last_, x, y) : 0xffffffffu;
    }
    int idle() const { return idle_; }
    const std::optional<int>& error() const { return errorCode_; }
    const std::vector<bool>& visibilityChanges() const { return visibility_; }
    const std::optional<VideoFrame>& latest() const { return last_; }

    // The Y, Cb and Cr samples at (x, y) of a 4:2:0 frame.
    static std::array<int, 3> yuv(const VideoFrame& frame, int x, int y) {
        const std::uint8_t* luma = frame.pixels->data();
        const std::uint8_t* cb = luma + std::size_t(frame.stride) * frame.height;
        const std::uint8_t* cr = cb + std::size_t(frame.stride / 2) * (frame.height / 2);
        const std::size_t at = std::size_t(y / 2) * (frame.stride / 2) + x / 2;
        return {luma[std::size_t(y) * frame.stride + x], cb[at], cr[at]};
    }

    // The pixel at (x, y) as 0xRRGGBB.
    static std::uint32_t pixel(const VideoFrame& frame, int x, int y) {
        const std::uint8_t* p = frame.pixels->data() + y * frame.stride + x * 4;
        return std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int complete_ = 0, idle_ = 0;
    std::optional<int> errorCode_;
    std::vector<bool> visibility_;
    std::vector<std::int64_t> times_;
    std::optional<VideoFrame> last_;
};

}  // namespace pavix::test
