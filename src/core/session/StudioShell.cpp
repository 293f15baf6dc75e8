#include "core/session/Studio.h"

// What the application shell asks of the model: the system taking the session away, and
// quitting.

namespace pavix {
namespace {

constexpr const char* kSessionEnded =
    "Computer went to sleep, locked or switched user. Recording stopped and any local capture "
    "was saved. Approve a new recording to continue.";

}  // namespace

asio::awaitable<void> Studio::systemSessionEnding() {
    if (!state_.connected && !lifecycle_.capturing()) {
        co_return;
    }
    co_await disconnect(kSessionEnded);
}

asio::awaitable<void> Studio::stopSharing() {
    co_await disconnect(disconnectedMessage);
}

asio::awaitable<void> Studio::quit() {
    co_await disconnect(disconnectedMessage);
}

asio::awaitable<void> Studio::stopAnyRecording() {
    if (lifecycle_.phase() != RecordingLifecycle::Phase::recording) {
        co_return;
    }
    if (lifecycle_.manual()) {
        co_await stopManual();
    } else {
        co_await disconnect(disconnectedMessage);
    }
}

std::optional<std::chrono::steady_clock::time_point> Studio::recordingSince() const {
    if (lifecycle_.phase() != RecordingLifecycle::Phase::recording) {
        return std::nullopt;
    }
    return recordingStarted_;
}

void Studio::setPreview(std::optional<PreviewRequest> request) {
    previewRequest_ = std::move(request);
    followPreview();
}

void Studio::followPreview() {
    if (!capture_) {
        return;  // still being made
    }
    std::optional<CaptureSource> source;
    if (previewRequest_ && !lifecycle_.capturing()) {
        source = selectedSource();
    }
    capture_->preview(source, previewRequest_ ? previewRequest_->maxWidth : 0,
                      previewRequest_ ? previewRequest_->maxHeight : 0,
                      previewRequest_ ? previewRequest_->sink : PreviewFeed::Sink());
}

}  // namespace pavix
