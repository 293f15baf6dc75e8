#include "core/session/Studio.h"

// What the application shell asks of the model: the system taking the session away, and
// quitting.

namespace pavix {
namespace {

constexpr const char* kSessionEnded =
    "Computer went to sleep, locked or switched user. Recording stopped and any local capture "
    "was saved. Approve a new recording to continue.";
constexpr const char* kDisconnected = "Disconnected. Local videos remain on this computer.";

}  // namespace

asio::awaitable<void> Studio::systemSessionEnding() {
    if (!state_.connected && !lifecycle_.capturing()) {
        co_return;
    }
    co_await disconnect(kSessionEnded);
}

asio::awaitable<void> Studio::quit() {
    co_await disconnect(kDisconnected);
}

asio::awaitable<void> Studio::stopAnyRecording() {
    if (lifecycle_.phase() != RecordingLifecycle::Phase::recording) {
        co_return;
    }
    if (lifecycle_.manual()) {
        co_await stopManual();
    } else {
        co_await disconnect(kDisconnected);
    }
}

std::optional<std::chrono::steady_clock::time_point> Studio::recordingSince() const {
    if (lifecycle_.phase() != RecordingLifecycle::Phase::recording) {
        return std::nullopt;
    }
    return recordingStarted_;
}

asio::awaitable<std::optional<VideoFrame>> Studio::preview(int maxWidth, int maxHeight) {
    auto source = selectedSource();
    if (!source || lifecycle_.capturing() || capture_->running()) {
        co_return std::nullopt;
    }
    std::optional<VideoFrame> picture;
    try {
        picture = co_await capture_->picture(*source, maxWidth, maxHeight);
    } catch (const std::exception&) {
        // A window that is minimised, closing or unmapped has no picture; the preview says so
        // and asks again later. Not worth a log line several times a second.
    }
    if (lifecycle_.capturing()) {
        co_return std::nullopt;  // a recording began while the picture was taken
    }
    co_return picture;
}

}  // namespace pavix
