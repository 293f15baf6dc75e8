#include <algorithm>

#include "core/capture/CaptureGuards.h"
#include "core/runtime/Offload.h"
#include "core/runtime/Sleep.h"
#include "core/runtime/Uuid.h"
#include "core/session/CommandEnvelope.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/Studio.h"

namespace pavix {
namespace {

constexpr const char* kLimitReached = "Recording limit reached. Saving and uploading.";
constexpr const char* kAgentLimitReached = "Five-minute limit reached. Local capture saved.";

}  // namespace

std::optional<std::string> Studio::shareBlocker() const {
    if (state_.connected) {
        return std::nullopt;
    }
    if (state_.busy) {
        return "Working…";
    }
    if (state_.recording) {
        return "Stop the current recording first.";
    }
    if (state_.update.kind == UpdateDecision::Kind::required) {
        return "Update Pavix to keep recording.";
    }
    if (!selectedSource()) {
        return "Choose a window or display first.";
    }
    if (state_.paired || !state_.code.empty()) {
        return std::nullopt;
    }
    return "Enter the one-time code from your agent or the console, or open the setup link.";
}

LocalCapture Studio::newRecord(const std::string& id, const CaptureSource& source) const {
    LocalCapture record;
    record.id = Uuid::upper(id);
    record.createdAt = env_.nowMs() / 1000.0 - LocalCapture::kReferenceDateOffset;
    record.stage = LocalCapture::Stage::recording;
    record.width = source.width;
    record.height = source.height;
    record.serverOrigin = state_.server;
    if (identity_) {
        record.deviceId = identity_->deviceId;
    }
    return record;
}

bool Studio::existsLocally(const std::string& id) const {
    auto canonical = Uuid::upper(id);
    std::error_code ignored;
    if (std::filesystem::exists(journal_.file(canonical), ignored) ||
        std::filesystem::exists(journal_.manifest(canonical), ignored)) {
        return true;
    }
    return std::any_of(state_.recent.begin(), state_.recent.end(),
                       [&](const LocalCapture& c) { return c.id == canonical; });
}

void Studio::reloadRecent() {
    auto loaded = journal_.load();
    change([&](StudioState& s) { s.recent = std::move(loaded); });
}

void Studio::stage(LocalCapture::Stage stage) {
    if (!current_) {
        return;
    }
    auto copy = *current_;
    copy.stage = stage;
    auto duration = capture_->durationMs();
    copy.durationMs = duration > 0 ? std::optional<std::int64_t>(duration) : std::nullopt;
    if (capture_->encoding()) {
        copy.width = capture_->width();
        copy.height = capture_->height();
    }
    if (capture_->region() && !capture_->layers().samples.empty()) {
        copy.layers = capture_->layers();
    }
    journal_.save(copy);
    current_ = copy;
    reloadRecent();
}

// Records the stage change, or logs why it could not be written: a side-car that cannot be
// written never stops a recording from being finished.
void Studio::stageOrLog(LocalCapture::Stage next) {
    try {
        stage(next);
    } catch (const std::exception& e) {
        log(std::string("library record not updated to ") + LocalCapture::stageText(next) + ": " +
            e.what());
    }
}

// Starts the capture of `source` under the service's capture id: the guards, the record, the
// capture. On failure the record (if one was made) is interrupted and the error thrown.
asio::awaitable<void> Studio::beginRecording(const std::string& id, const CaptureSource& source) {
    auto measure = [volume = env_.volume, folder = env_.libraryFolder] {
        return volume->freeBytes(folder);
    };
    auto free = co_await offload(*env_.pool, std::move(measure));
    if (auto blocked = CaptureGuards::startBlocked(free, env_.libraryLabel)) {
        throw PavixError(*blocked);
    }
    if (existsLocally(id)) {
        throw PavixError(Capture::existsMessage);
    }
    auto record = newRecord(id, source);
    journal_.save(record);
    current_ = record;
    moments_ = nlohmann::json::array();
    windowReport_.reset();
    reloadRecent();
    std::exception_ptr failure;
    try {
        co_await capture_->start(source, journal_.file(record.id));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        stageOrLog(LocalCapture::Stage::interrupted);
        std::rethrow_exception(failure);
    }
    recordingStarted_ = std::chrono::steady_clock::now();
}

asio::awaitable<void> Studio::recordNow() {
    auto source = selectedSource();
    if (state_.busy || state_.connected || state_.recording || !state_.paired || !source) {
        co_return;
    }
    setConsent(true);
    change([](StudioState& s) { s.busy = true; });
    std::exception_ptr failure;
    nlohmann::json begin;
    try {
        endpoint_ = ServiceRequests::validatedEndpoint(state_.server);
        if (!identity_) {
            throw PavixError("Pair this computer with your agent first.");
        }
        nlohmann::json refresh = {{"refreshToken", identity_->refreshToken}};
        auto reply = co_await post("device/refresh", refresh);
        co_await remember(reply);
        nlohmann::json request = {{"requestId", Uuid::make()}};
        begin = co_await post("desktop-recording/begin", request);
        auto id = begin.find("id");
        if (id == begin.end() || !id->is_string() || !Uuid::isValid(id->get<std::string>())) {
            throw PavixError("Invalid capture response");
        }
        co_await beginRecording(id->get<std::string>(), *source);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        diagnose("manual_start_failed", failure);
        log("manual start failed: " + describe(failure));
        setConsent(false);
        change([](StudioState& s) { s.busy = false; });
        setStatus(describe(failure));
        co_return;
    }
    change([&](StudioState& s) {
        s.manual = true;
        s.recordingSource = source->title;
        s.recording = true;
    });
    setStatus("Recording " + source->title + ". Press Stop when done.");
    watch(*source, connectionGeneration_);
    // The service may name the length of this recording; five minutes otherwise.
    auto limit = env_.timing.userRecordingLimit;
    auto captureMs = begin.find("captureMs");
    if (captureMs != begin.end() && captureMs->is_number_integer() &&
        captureMs->get<std::int64_t>() > 0) {
        limit = Timing::ms(captureMs->get<std::int64_t>());
    }
    log("recording limit " + std::to_string(limit.count()) + " ms");
    timer_ = Task::spawn(env_.executor, recordingLimit(limit, current_->id), taskErrorHandler());
    change([](StudioState& s) { s.busy = false; });
}

asio::awaitable<void> Studio::recordingLimit(Timing::ms limit, std::string id) {
    co_await sleepFor(limit);
    if (!state_.recording || !current_ || current_->id != id) {
        co_return;
    }
    if (state_.manual) {
        co_await stopManual(std::string(kLimitReached));
    } else {
        co_await disconnect(kAgentLimitReached);
    }
}

asio::awaitable<void> Studio::stopManual(std::optional<std::string> message) {
    if (!state_.manual || manualTask_.running()) {
        co_return;
    }
    auto done = std::make_shared<SharedOutcome<bool>>(env_.executor);
    manualTask_ =
        Task::spawn(env_.executor, manualStop(std::move(message), done), taskErrorHandler());
    co_await done->wait();
}

asio::awaitable<void> Studio::manualStop(std::optional<std::string> message,
                                         std::shared_ptr<SharedOutcome<bool>> done) {
    // This task is neither the limit timer nor the watchdog, so cancelling them here cannot
    // cancel the stop itself.
    timer_.cancel();
    watchdog_.cancel();
    setStatus(message.value_or("Saving…"));
    change([](StudioState& s) { s.busy = true; });
    std::exception_ptr failure;
    try {
        co_await finalize();
        co_await handOver();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        restageAfterFailedUpload();
        setConsent(false);
        if (!ErrorText::isCancellation(failure)) {
            diagnose("manual_stop_failed", failure);
            setStatus("Upload did not finish. Local video saved; use Retry upload. " +
                      describe(failure));
        }
    }
    change([](StudioState& s) {
        s.manual = false;
        s.recording = false;
        s.uploading = false;
        s.busy = false;
    });
    done->resolve(failure == nullptr);
}

asio::awaitable<void> Studio::finalize() {
    stageOrLog(LocalCapture::Stage::finalizing);
    std::filesystem::path file;
    std::exception_ptr failure;
    finalizing_ = true;
    try {
        file = co_await capture_->stop();
    } catch (...) {
        failure = std::current_exception();
    }
    finalizing_ = false;
    if (failure) {
        change([](StudioState& s) { s.recording = false; });
        setConsent(false);
        stageOrLog(LocalCapture::Stage::interrupted);
        std::rethrow_exception(failure);
    }
    change([&](StudioState& s) {
        s.recording = false;
        s.saved = file;
    });
    setConsent(false);
    stage(LocalCapture::Stage::saved);
}

// A record whose upload failed goes back to saved; one whose recording never finished is
// interrupted. The video stays either way.
void Studio::restageAfterFailedUpload() {
    if (!current_) {
        return;
    }
    switch (current_->stage) {
        case LocalCapture::Stage::uploading:
            stageOrLog(LocalCapture::Stage::saved);
            break;
        case LocalCapture::Stage::recording:
        case LocalCapture::Stage::finalizing:
            stageOrLog(LocalCapture::Stage::interrupted);
            break;
        default:
            break;
    }
}

// What ending a session does to an open recording: a running capture is finished (the record
// saved, or interrupted when the file cannot be completed). A stop already under way finishes
// by itself.
asio::awaitable<void> Studio::closeRecording() {
    if (!state_.recording || manualTask_.running() || !capture_->running()) {
        co_return;
    }
    std::exception_ptr failure;
    try {
        co_await finalize();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        log("recording could not be finished: " + ErrorText::describe(failure));
    }
    change([](StudioState& s) { s.manual = false; });
}

void Studio::captureFailed(const std::string& message) {
    if (!state_.recording || finalizing_ || manualTask_.running()) {
        return;
    }
    log("capture ended by itself: " + message);
    if (state_.manual) {
        spawnDetached(stopManual(message));
    } else {
        spawnDetached(disconnect(message));
    }
}

// --- the agent's recording methods

asio::awaitable<nlohmann::json> Studio::startRecordingCommand(const nlohmann::json& args) {
    auto named = CommandEnvelope::namedArguments(args);
    if (state_.recording || capture_->running()) {
        throw PavixError("Stop the current recording first.");
    }
    if (uploadRunning() || state_.uploading) {
        throw PavixError(
            "The last recording is still uploading. Start the next one when it is done.");
    }
    if (!state_.consent) {
        throw PavixError("Approve a new recording in Pavix first.");
    }
    auto captureId = named.find("captureId");
    if (captureId == named.end() || !captureId->is_string() ||
        !Uuid::isValid(captureId->get<std::string>())) {
        throw PavixError("startRecording needs the captureId that the service issued.");
    }
    auto source = selectedSource();
    if (!source) {
        throw PavixError("Choose a window or display first.");
    }
    auto generation = connectionGeneration_;
    std::exception_ptr failure;
    try {
        co_await beginRecording(captureId->get<std::string>(), *source);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        setConsent(false);
        setStatus(describe(failure));
        std::rethrow_exception(failure);
    }
    change([&](StudioState& s) {
        s.manual = false;
        s.recordingSource = source->title;
        s.recording = true;
    });
    setStatus("Recording " + source->title + " for your agent.");
    auto preset = named.find("windowSize");
    if (preset != named.end() && preset->is_string() && !preset->get<std::string>().empty()) {
        windowReport_ = windowPreset(preset->get<std::string>(), *source);
    }
    watch(*source, generation);
    timer_ =
        Task::spawn(env_.executor, recordingLimit(env_.timing.agentRecordingLimit, current_->id),
                    taskErrorHandler());
    co_return nlohmann::json{{"captureId", Uuid::lower(current_->id)},
                             {"source", {{"id", source->id}, {"title", source->title}}},
                             {"width", capture_->width()},
                             {"height", capture_->height()},
                             {"contentType", "video/mp4"}};
}

// Window sizing needs a control session; until one exists the report says why nothing was
// touched.
nlohmann::json Studio::windowPreset(const std::string& requested, const CaptureSource& source) {
    const char* reason = source.isDisplay() ? "display" : "control_off";
    log("window preset " + requested + ": " + std::to_string(source.width) + "x" +
        std::to_string(source.height) + " resized=false " + reason);
    return {{"requested", requested},
            {"width", source.width},
            {"height", source.height},
            {"resized", false},
            {"reason", reason}};
}

asio::awaitable<nlohmann::json> Studio::stopRecordingCommand() {
    nlohmann::json value = {{"body", "desktop_upload"},
                            {"captureId", ""},
                            {"contentType", "video/mp4"},
                            {"redactionPassed", false}};
    if (!state_.recording) {
        co_return value;
    }
    auto id = current_ ? Uuid::lower(current_->id) : std::string();
    if (state_.manual) {
        co_await stopManual();
        value["captureId"] = id;
        co_return value;
    }
    timer_.cancel();
    watchdog_.cancel();
    setStatus("Saving…");
    std::exception_ptr failure;
    try {
        co_await finalize();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        setStatus(describe(failure));
        std::rethrow_exception(failure);
    }
    value["captureId"] = id;
    setStatus("Saved. Uploading for your agent…");
    change([](StudioState& s) { s.uploading = true; });
    uploadDone_ = std::make_shared<SharedOutcome<bool>>(env_.executor);
    uploadTask_ = Task::spawn(env_.executor, agentHandOver(), taskErrorHandler());
    co_return value;
}

nlohmann::json Studio::markDemoMoment(const nlohmann::json& args) {
    if (!state_.recording || !current_) {
        throw PavixError(Capture::notRecordingMessage);
    }
    auto named = CommandEnvelope::namedArguments(args);
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now() - recordingStarted_)
                       .count();
    nlohmann::json moment = {{"atMs", elapsed}};
    for (const char* key : {"label", "kind", "note"}) {
        auto found = named.find(key);
        if (found != named.end() && found->is_string()) {
            moment[key] = found->get<std::string>().substr(0, 200);
        }
    }
    moments_.push_back(moment);
    log("demo moment " + std::to_string(moments_.size()) + " at " + std::to_string(elapsed) +
        " ms");
    return {
        {"captureId", Uuid::lower(current_->id)}, {"moment", moment}, {"count", moments_.size()}};
}

asio::awaitable<nlohmann::json> Studio::disposeCommand() {
    if (!capture_->running() && !current_) {
        throw PavixError("Desktop preview supports capture only.");
    }
    auto id = current_ ? Uuid::lower(current_->id) : std::string();
    if (state_.recording && !manualTask_.running()) {
        timer_.cancel();
        watchdog_.cancel();
        co_await finalize();
    }
    // Ending the session would cancel an upload under way: it finishes first.
    if (uploadTask_.running() && uploadDone_) {
        co_await uploadDone_->wait();
    }
    endAfterReply_ = "Your agent ended the session. Local videos remain on this computer.";
    co_return nlohmann::json{{"disposed", true}, {"captureId", id}};
}

}  // namespace pavix
