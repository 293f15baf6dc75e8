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

VideoFrame first(CaptureStream& stream, const CaptureFilter& filter, int width, int height,
                 std::chrono::milliseconds timeout) {
    FirstFrame arrival;
    CaptureStreamHandlers handlers;
    handlers.frame = [&arrival](const VideoFrame& frame) {
        if (!frame.complete) {
            return;
        }
        std::lock_guard lock(arrival.mutex);
        if (!arrival.frame) {
            arrival.frame = frame;
            arrival.arrived.notify_all();
        }
    };
    handlers.error = [&arrival](const CaptureError& error) {
        std::lock_guard lock(arrival.mutex);
        if (!arrival.error) {
            arrival.error = error;
            arrival.arrived.notify_all();
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
        std::unique_lock lock(arrival.mutex);
        arrival.arrived.wait_for(lock, timeout, [&] { return arrival.frame || arrival.error; });
        frame = arrival.frame;
        error = arrival.error;
    }
    stream.stop();  // no handler runs after this, so `arrival` may go
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
    return encoder.png(first(stream, filter, width, height, timeout));
}

}  // namespace pavix::CaptureStill
