#include <algorithm>
#include <asio/cancellation_state.hpp>
#include <asio/this_coro.hpp>
#include <cmath>

#include "core/library/CaptureTransfer.h"
#include "core/runtime/Offload.h"
#include "core/runtime/Uuid.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/Studio.h"

namespace pavix {
namespace {

// The service's "received" count when it is an integer.
std::optional<std::int64_t> received(const nlohmann::json& reply) {
    auto found = reply.find("received");
    if (found == reply.end() || !found->is_number_integer()) {
        return std::nullopt;
    }
    if (found->is_number_unsigned() && found->get<std::uint64_t>() > std::uint64_t(INT64_MAX)) {
        return std::nullopt;
    }
    return found->get<std::int64_t>();
}

// Cancellation is cooperative: checked before each piece and before publishing.
void throwIfCancelled(const asio::cancellation_state& state) {
    if (state.cancelled() != asio::cancellation_type::none) {
        throw std::system_error(asio::error::operation_aborted);
    }
}

constexpr const char* kOtherAccount = "Reconnect the computer account that created this capture.";

}  // namespace

asio::awaitable<void> Studio::upload(LocalCapture capture, std::filesystem::path file) {
    if (!capture.durationMs || *capture.durationMs < 1) {
        throw PavixError("Capture duration unavailable. Local video saved.");
    }
    auto print = co_await CaptureTransfer::fingerprint(*env_.pool, file);
    const std::string base = "desktop-upload/" + Uuid::lower(capture.id) + "/";

    nlohmann::json media = {
        {"width", capture.width}, {"height", capture.height}, {"durationMs", *capture.durationMs}};
    if (capture.layers) {
        media["layers"] = capture.layers->payload();
    }
    nlohmann::json begin = {{"bytes", print.bytes}, {"sha256", print.sha256}, {"media", media}};
    const std::string beginPath = base + "begin";
    auto reply = co_await post(beginPath, begin);
    auto held = received(reply);
    if (!held || *held < 0 || *held > print.bytes) {
        throw PavixError("Invalid upload receipt");
    }
    if (*held > 0) {
        log("upload resumes at byte " + std::to_string(*held) + " of " +
            std::to_string(print.bytes));
    }
    std::int64_t offset = *held;
    auto progress = [&] {
        change([&](StudioState& s) {
            s.uploadRecord = capture.id;
            s.uploadProgress = print.bytes > 0 ? double(offset) / double(print.bytes) : 1.0;
        });
    };
    progress();
    while (offset < print.bytes) {
        throwIfCancelled(co_await asio::this_coro::cancellation_state);
        offset = co_await sendPiece(base, file, offset, print.bytes);
        progress();
        setStatus("Uploading " + std::to_string(offset * 100 / print.bytes) +
                  "%. Local video saved.");
    }
    const std::string completePath = base + "complete";
    co_await post(completePath);
}

// Sends the piece at `offset` and returns where the next one starts.
asio::awaitable<std::int64_t> Studio::sendPiece(std::string base, std::filesystem::path file,
                                                std::int64_t offset, std::int64_t size) {
    const auto limit =
        std::clamp<std::int64_t>(env_.uploadPieceBytes, 1, CaptureTransfer::kChunkSize);
    auto count = std::min(size - offset, limit);
    auto bytes = co_await CaptureTransfer::chunk(*env_.pool, file, offset, count);
    ServiceRequests::Payload piece;
    piece.chunk = std::move(bytes);
    piece.offset = offset;
    const std::string path = base + "chunk";
    const nlohmann::json noBody = nlohmann::json::object();
    auto receipt = co_await post(path, noBody, std::move(piece));
    // The service may acknowledge more than was just sent, never less.
    auto next = received(receipt);
    if (!next || *next < offset + count || *next > size) {
        throw PavixError("Invalid upload offset");
    }
    co_return *next;
}

// The hand-over of a finished recording: upload, publish, uploaded. A failure puts the record
// back to saved and says so; the lifecycle returns to idle on every path.
asio::awaitable<void> Studio::handOver(RecordingLifecycle::Owner owner,
                                       std::shared_ptr<SharedOutcome<bool>> done) {
    std::exception_ptr failure;
    try {
        if (!identity_ || !current_ || current_->id != lifecycle_.record()) {
            throw PavixError("Capture identity unavailable");
        }
        co_await stage(LocalCapture::Stage::uploading);
        setStatus("Uploading. Local video saved.");
        auto record = *current_;
        co_await upload(record, journal_.file(record.id));
        throwIfCancelled(co_await asio::this_coro::cancellation_state);
        const std::string publishPath = "desktop-upload/" + Uuid::lower(record.id) + "/publish";
        co_await post(publishPath);
        co_await stage(LocalCapture::Stage::uploaded);
        setStatus("Uploaded. Ask your agent to render it, or open your Pavix library.");
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        // A cancelled upload (the session ended) still puts its record back, and no cancel
        // (the session ending while the disk is slow) may cut that short: the phase would
        // stay open for good. Every wait below is bounded, and nothing follows in this task.
        co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
        const bool cancelled = ErrorText::isCancellation(failure);
        if (!cancelled) {
            diagnose(owner == RecordingLifecycle::Owner::user ? "manual_stop_failed"
                                                              : "agent_upload_failed",
                     failure);
        }
        co_await restageAfterFailedUpload();
        if (!cancelled) {
            setStatus("Upload did not finish. Local video saved; use Retry upload. " +
                      describe(failure));
        }
    }
    transition([](RecordingLifecycle& l) { return l.uploadEnded(); });
    done->resolve(failure == nullptr);
}

// A record whose upload failed goes back to saved; one whose recording never finished is
// interrupted. The video stays either way.
asio::awaitable<void> Studio::restageAfterFailedUpload() {
    if (!current_) {
        co_return;
    }
    switch (current_->stage) {
        case LocalCapture::Stage::uploading:
            co_await stageOrLog(LocalCapture::Stage::saved);
            break;
        case LocalCapture::Stage::recording:
        case LocalCapture::Stage::finalizing:
            co_await stageOrLog(LocalCapture::Stage::interrupted);
            break;
        default:
            break;
    }
}

bool Studio::canRetry(const LocalCapture& capture) const {
    if (state_.busy || state_.connected || state_.recording || removing_.count(capture.id) != 0) {
        return false;
    }
    std::optional<std::string> device;
    if (identity_) {
        device = identity_->deviceId;
    }
    return capture.canRetry(state_.server, device);
}

void Studio::retryUpload(const LocalCapture& capture) {
    if (!canRetry(capture)) {
        return;
    }
    if (!transition([&](RecordingLifecycle& l) { return l.beginRetry(capture.id); })) {
        return;
    }
    retryTask_ = Task::spawn(env_.executor, retry(capture), taskErrorHandler());
}

asio::awaitable<void> Studio::retry(LocalCapture capture) {
    std::exception_ptr failure;
    try {
        if (!identity_ || !capture.canRetry(state_.server, identity_->deviceId)) {
            throw PavixError(kOtherAccount);
        }
        endpoint_ = ServiceRequests::validatedEndpoint(state_.server);
        nlohmann::json refresh = {{"refreshToken", identity_->refreshToken}};
        auto reply = co_await post("device/refresh", refresh);
        co_await remember(reply);

        auto file = journal_.file(capture.id);
        auto readDuration = [media = env_.capture.media, path = file.string()] {
            return media ? media->duration(path) : std::optional<double>();
        };
        auto seconds = co_await offload(*env_.pool, std::move(readDuration));
        if (!seconds || !std::isfinite(*seconds) || *seconds <= 0) {
            throw PavixError("Local capture is incomplete. Keep the file for recovery.");
        }
        capture.stage = LocalCapture::Stage::uploading;
        co_await saveRecord(capture);
        co_await reloadRecent();
        co_await upload(capture, file);
        throwIfCancelled(co_await asio::this_coro::cancellation_state);
        const std::string publishPath = "desktop-upload/" + Uuid::lower(capture.id) + "/publish";
        co_await post(publishPath);
        capture.stage = LocalCapture::Stage::uploaded;
        co_await saveRecord(capture);
        co_await reloadRecent();
        setStatus("Capture recovered. Ask your agent to render and export.");
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        // As for the hand-over: the record goes back to saved whatever is cancelled meanwhile.
        co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
        capture.stage = LocalCapture::Stage::saved;
        try {
            co_await saveRecord(capture);
        } catch (...) {
        }
        try {
            co_await reloadRecent();
        } catch (...) {
        }
        if (!ErrorText::isCancellation(failure)) {
            diagnose("retry_upload_failed", failure);
            setStatus("Upload did not finish. Local video saved. " + describe(failure));
        }
    }
    transition([](RecordingLifecycle& l) { return l.uploadEnded(); });
}

asio::awaitable<void> Studio::cancelUpload() {
    co_await disconnect(
        "Upload canceled. Local video saved; accepted cloud bytes may remain until retention "
        "expires.");
}

}  // namespace pavix
