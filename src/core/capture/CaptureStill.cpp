#include "core/capture/CaptureStill.h"

#include <condition_variable>
#include <mutex>
#include <optional>

#include "core/capture/CaptureError.h"

namespace pavix::CaptureStill {
namespace {

// The first complete frame or the first error, handed from the stream's thread.
struct FirstFrame {
    std::mutex mutex;
    std::condition_variable arrived;
    std::optional<VideoFrame> frame;
    std::optional<CaptureError> error;
};

}  // namespace

VideoFrame firstFrame(CaptureStream& stream, const CaptureFilter& filter, int width, int height,
                      std::chrono::milliseconds timeout) {
    FirstFrame first;
    CaptureStreamHandlers handlers;
    handlers.frame = [&first](const VideoFrame& frame) {
        if (!frame.complete) {
            return;
        }
        std::lock_guard lock(first.mutex);
        if (!first.frame) {
            first.frame = frame;
            first.arrived.notify_all();
        }
    };
    handlers.error = [&first](const CaptureError& error) {
        std::lock_guard lock(first.mutex);
        if (!first.error) {
            first.error = error;
            first.arrived.notify_all();
        }
    };
    CaptureStreamConfig config;
    config.width = width;
    config.height = height;
    config.showsCursor = false;
    stream.start(filter, config, std::move(handlers));

    std::optional<VideoFrame> frame;
    std::optional<CaptureError> error;
    {
        std::unique_lock lock(first.mutex);
        first.arrived.wait_for(lock, timeout, [&] { return first.frame || first.error; });
        frame = first.frame;
        error = first.error;
    }
    stream.stop();  // no handler runs after this, so `first` may go
    if (frame) {
        return *frame;
    }
    if (error) {
        throw *error;
    }
    throw CaptureError(CaptureError::kFailedToStart, "No picture arrived from the source.");
}

std::vector<std::uint8_t> take(CaptureStream& stream, StillEncoder& encoder,
                               const CaptureFilter& filter, int width, int height,
                               std::chrono::milliseconds timeout) {
    return encoder.png(firstFrame(stream, filter, width, height, timeout));
}

}  // namespace pavix::CaptureStill
