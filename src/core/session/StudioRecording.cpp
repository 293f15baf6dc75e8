#include <algorithm>
#include <asio/this_coro.hpp>
#include <utility>

#include "core/capture/CaptureGuards.h"
#include "core/runtime/Offload.h"
#include "core/runtime/Sleep.h"
#include "core/runtime/Uuid.h"
#include "core/session/CommandEnvelope.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/Studio.h"
#include "core/sizing/WindowSizing.h"

namespace pavix {
namespace {

using Owner = RecordingLifecycle::Owner;

constexpr const char* kLimitReached = "Recording limit reached. Saving and uploading.";
constexpr const char* kAgentLimitReached = "Five-minute limit reached. Local capture saved.";
constexpr const char* kSessionEnded =
    "The recording session expired or was ended by your agent. Approve a new recording to "
    "continue; local videos are preserved.";

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

std::optional<std::string> Studio::recordBlocker() const {
    if (state_.connected) {
        return "Stop sharing with the agent to record it yourself.";
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
    if (!state_.paired) {
        return "Pair this computer with your agent first.";
    }
    if (!selectedSource()) {
        return "Choose a window or display first.";
    }
    return std::nullopt;
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

// Starts the capture of `source` under the service's capture id: the guards, the record, the
// capture. On failure the record (if one was made) is interrupted and the error thrown.
asio::awaitable<void> Studio::beginRecording(std::string id, CaptureSource source) {
    auto measure = [volume = env_.volume, folder = env_.libraryFolder] {
        return volume->freeBytes(folder);
    };
    auto free = co_await offload(*env_.pool, std::move(measure));
    if (auto blocked = CaptureGuards::startBlocked(free, env_.libraryLabel)) {
        throw PavixError(*blocked);
    }
    if (co_await existsLocally(id)) {
        throw PavixError(Capture::existsMessage);
    }
    // The record is the current one from the moment it can be on disk.
    auto record = newRecord(id, source);
    auto previous = std::exchange(current_, record);
    std::exception_ptr unsaved;
    try {
        co_await saveRecord(record);
    } catch (...) {
        unsaved = std::current_exception();
    }
    if (unsaved) {
        current_ = previous;
        std::rethrow_exception(unsaved);
    }
    moments_ = nlohmann::json::array();
    windowReport_.reset();
    stop_.reset();
    std::exception_ptr failure;
    try {
        co_await reloadRecent();
        co_await capture_->start(source, journal_.file(record.id));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await asio::this_coro::reset_cancellation_state();
        co_await stageOrLog(LocalCapture::Stage::interrupted);
        std::rethrow_exception(failure);
    }
    recordingStarted_ = std::chrono::steady_clock::now();
}

// The watchdog and the length limit of the recording that just started.
void Studio::startTimers(const CaptureSource& source, Timing::ms limit) {
    const auto record = lifecycle_.record();
    watch(source, connectionGeneration_);
    auto expire = [](Studio* self, Timing::ms limit, std::string record) -> asio::awaitable<void> {
        co_await sleepFor(limit);
        auto& l = self->lifecycle_;
        if (l.phase() != RecordingLifecycle::Phase::recording || l.record() != record) {
            co_return;
        }
        co_await self->endRecording(record, l.manual() ? kLimitReached : kAgentLimitReached);
    };
    log("recording limit " + std::to_string(limit.count()) + " ms");
    timer_ = Task::spawn(env_.executor, expire(this, limit, record), taskErrorHandler());
}

asio::awaitable<void> Studio::endRecording(std::string record, std::string message) {
    if (lifecycle_.phase() != RecordingLifecycle::Phase::recording ||
        lifecycle_.record() != record) {
        co_return;  // already stopping, or another recording by now
    }
    if (lifecycle_.manual()) {
        co_await stopManual(message);
    } else {
        co_await disconnect(message);
    }
}

asio::awaitable<void> Studio::recordNow() {
    auto source = selectedSource();
    if (recordBlocker() || !source) {
        co_return;
    }
    if (!transition([](RecordingLifecycle& l) { return l.beginStart(Owner::user); })) {
        co_return;
    }
    // A session that ends while the service is asked (the device forgotten, the computer
    // asleep) ends this start too: nothing is recorded for it afterwards.
    const auto generation = connectionGeneration_;
    std::exception_ptr failure;
    nlohmann::json begin;
    std::string id;
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
        auto issued = begin.find("id");
        if (issued == begin.end() || !issued->is_string() ||
            !Uuid::isValid(issued->get<std::string>())) {
            throw PavixError("Invalid capture response");
        }
        id = issued->get<std::string>();
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure && connectionGeneration_ != generation) {
        log("manual start dropped: the session ended while it was asked for");
        transition([](RecordingLifecycle& l) { return l.startFailed(); });
        co_return;
    }
    if (failure) {
        startFailed(Owner::user, failure);
        co_return;
    }
    // The service may name the length of this recording; five minutes otherwise.
    auto limit = env_.timing.userRecordingLimit;
    auto captureMs = begin.find("captureMs");
    if (captureMs != begin.end() && captureMs->is_number_integer() &&
        captureMs->get<std::int64_t>() > 0) {
        limit = Timing::ms(captureMs->get<std::int64_t>());
    }
    try {
        co_await runStart(Owner::user, id, *source, limit);
    } catch (...) {
        // reported by the start
    }
}

asio::awaitable<void> Studio::runStart(Owner owner, std::string id, CaptureSource source,
                                       Timing::ms limit) {
    auto done = std::make_shared<SharedOutcome<bool>>(env_.executor);
    startTask_ = Task::spawn(
        env_.executor,
        startCapture(owner, std::move(id), std::move(source), connectionGeneration_, limit, done),
        taskErrorHandler());
    co_await done->wait();
}

asio::awaitable<void> Studio::startCapture(Owner owner, std::string id, CaptureSource source,
                                           std::string generation, Timing::ms limit,
                                           std::shared_ptr<SharedOutcome<bool>> done) {
    std::exception_ptr failure;
    try {
        co_await beginRecording(id, source);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        startFailed(owner, failure);
        done->reject(failure);
        co_return;
    }
    transition([&](RecordingLifecycle& l) { return l.started(current_->id); });
    change([&](StudioState& s) { s.recordingSource = source.title; });
    setStatus("Recording " + source.title + ". Press Stop when done.");
    startTimers(source, limit);
    if (connectionGeneration_ != generation) {
        // The computer went to sleep or the session ended while the capture started.
        co_await closeRecording();
        done->reject(std::make_exception_ptr(PavixError(kSessionEnded)));
        co_return;
    }
    done->resolve(true);
}

void Studio::startFailed(Owner owner, std::exception_ptr failure) {
    transition([](RecordingLifecycle& l) { return l.startFailed(); });
    if (ErrorText::isCancellation(failure)) {
        return;
    }
    if (owner == Owner::user) {
        diagnose("manual_start_failed", failure);
        log("manual start failed: " + describe(failure));
    }
    setStatus(describe(failure));
}

asio::awaitable<void> Studio::stopManual(std::optional<std::string> message) {
    if (!lifecycle_.manual() || lifecycle_.phase() != RecordingLifecycle::Phase::recording) {
        co_return;  // a stop is already under way, or nothing of the user's runs
    }
    auto stop = stopRecording(message.value_or("Saving…"), true);
    if (stop) {
        co_await stop->done->wait();
    }
}

std::optional<Studio::Stop> Studio::stopRecording(const std::string& message, bool handOver) {
    if (!transition([](RecordingLifecycle& l) { return l.beginStop(); })) {
        return std::nullopt;
    }
    timer_.cancel();
    watchdog_.cancel();
    if (!message.empty()) {
        setStatus(message);
    }
    if (control_ && env_.controlThread) {
        asio::post(*env_.controlThread, [control = control_] { control->endRecording(); });
    }
    Stop stop{std::make_shared<SharedOutcome<bool>>(env_.executor),
              std::make_shared<SharedOutcome<bool>>(env_.executor)};
    stop_ = stop;
    stopTask_ = Task::spawn(
        env_.executor, finishRecording(lifecycle_.owner(), handOver, connectionGeneration_, stop),
        taskErrorHandler());
    return stop;
}

// Finishes the video and hands it over. Runs as a task of its own that nothing cancels, so a
// session that ends meanwhile still gets a finished file; the upload follows only while the
// session that asked for it lasts.
asio::awaitable<void> Studio::finishRecording(Owner owner, bool handOver, std::string generation,
                                              Stop stop) {
    std::exception_ptr failure;
    try {
        co_await finalize();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        transition([](RecordingLifecycle& l) { return l.stopped(false); });
        if (!handOver) {
            log("recording could not be finished: " + describe(failure));
        } else if (owner == Owner::user) {
            diagnose("manual_stop_failed", failure);
            setStatus("Upload did not finish. Local video saved; use Retry upload. " +
                      describe(failure));
        } else {
            setStatus(describe(failure));
        }
        stop.finished->reject(failure);
        stop.done->reject(failure);
        co_return;
    }
    const bool upload = handOver && connectionGeneration_ == generation;
    transition([&](RecordingLifecycle& l) { return l.stopped(upload); });
    stop.finished->resolve(true);
    if (!upload) {
        stop.done->resolve(true);
        co_return;
    }
    uploadTask_ = Task::spawn(env_.executor, this->handOver(owner, stop.done), taskErrorHandler());
}

asio::awaitable<void> Studio::finalize() {
    co_await stageOrLog(LocalCapture::Stage::finalizing);
    std::filesystem::path file;
    std::exception_ptr failure;
    try {
        file = co_await capture_->stop();
    } catch (...) {
        failure = std::current_exception();
    }
    co_await restoreWindow();
    if (failure) {
        co_await stageOrLog(LocalCapture::Stage::interrupted);
        std::rethrow_exception(failure);
    }
    change([&](StudioState& s) { s.saved = file; });
    co_await stageOrLog(LocalCapture::Stage::saved);
}

// What ending a session does to an open recording: a running capture is finished (the record
// saved, or interrupted when the file cannot be completed) and kept, not uploaded. A stop
// already under way finishes by itself.
asio::awaitable<void> Studio::closeRecording() {
    auto stop = stopRecording("", false);
    if (stop) {
        try {
            co_await stop->finished->wait();
        } catch (...) {
            // logged by the stop
        }
    }
}

void Studio::captureFailed(const std::string& message) {
    if (lifecycle_.phase() != RecordingLifecycle::Phase::recording) {
        return;  // a failure while the capture is being stopped is the stop's to report
    }
    log("capture ended by itself: " + message);
    spawnDetached(endRecording(lifecycle_.record(), message));
}

// --- the agent's recording methods

asio::awaitable<nlohmann::json> Studio::startRecordingCommand(nlohmann::json args) {
    auto named = CommandEnvelope::namedArguments(args);
    if (lifecycle_.capturing()) {
        throw PavixError("Stop the current recording first.");
    }
    if (lifecycle_.uploading()) {
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
    if (!transition([](RecordingLifecycle& l) { return l.beginStart(Owner::agent); })) {
        throw PavixError("Stop the current recording first.");
    }
    // The window takes its size before the recording starts, which is then made at it.
    std::optional<WindowSizing::Report> sized;
    auto preset = named.find("windowSize");
    if (preset != named.end() && preset->is_string() && !preset->get<std::string>().empty()) {
        sized = co_await sizeWindow(preset->get<std::string>(), *source);
        if (sized->resized) {
            co_await refreshSources();
            if (auto resized = selectedSource(); resized && resized->id == source->id) {
                source = resized;
            }
        }
    }
    std::exception_ptr failure;
    try {
        co_await runStart(Owner::agent, captureId->get<std::string>(), *source,
                          env_.timing.agentRecordingLimit);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await restoreWindow();  // no recording needs the size
        std::rethrow_exception(failure);
    }
    windowReport_ = sized;
    co_return nlohmann::json{{"captureId", Uuid::lower(current_->id)},
                             {"source", {{"id", source->id}, {"title", source->title}}},
                             {"width", capture_->width()},
                             {"height", capture_->height()},
                             {"contentType", "video/mp4"}};
}

asio::awaitable<WindowSizing::Report> Studio::sizeWindow(const std::string& requested,
                                                         const CaptureSource& source) {
    WindowSizing::Report report;
    report.requested = requested;
    report.width = static_cast<int>(source.width);
    report.height = static_cast<int>(source.height);
    if (source.isDisplay()) {
        report.reason = WindowSizing::Reason::display;
    } else if (!state_.allowControl || !env_.windowFrames || source.windowIDs.empty()) {
        report.reason = WindowSizing::Reason::controlOff;
    } else {
        auto work = [frames = env_.windowFrames, requested, id = source.windowIDs.front()] {
            return WindowResize::apply(*frames, requested, id);
        };
        try {
            auto [applied, undo] = co_await offload(*env_.pool, std::move(work));
            report = applied;
            windowUndo_ = undo;
        } catch (...) {
            log("window preset failed: " + ErrorText::describe(std::current_exception()));
            report.reason = WindowSizing::Reason::notResizable;
        }
    }
    log("window preset " + requested + ": " + std::to_string(report.width) + "x" +
        std::to_string(report.height) + " resized=" + (report.resized ? "true " : "false ") +
        (report.reason ? reasonText(*report.reason) : std::string()));
    co_return report;
}

asio::awaitable<void> Studio::restoreWindow() {
    auto undo = std::exchange(windowUndo_, std::nullopt);
    if (!undo || !env_.windowFrames) {
        co_return;
    }
    bool restored = false;
    try {
        auto work = [frames = env_.windowFrames, undo = *undo] { return undo.restore(*frames); };
        restored = co_await offload(*env_.pool, std::move(work));
    } catch (...) {
        log("window restore failed: " + ErrorText::describe(std::current_exception()));
    }
    if (windowReport_) {
        windowReport_->restored = restored;
    }
    log(std::string("window restored=") + (restored ? "true" : "false"));
}

asio::awaitable<nlohmann::json> Studio::stopRecordingCommand() {
    nlohmann::json value = {{"body", "desktop_upload"},
                            {"captureId", ""},
                            {"contentType", "video/mp4"},
                            {"redactionPassed", false}};
    if (lifecycle_.phase() != RecordingLifecycle::Phase::recording &&
        lifecycle_.phase() != RecordingLifecycle::Phase::stopping) {
        co_return value;
    }
    auto id = Uuid::lower(lifecycle_.record());
    if (lifecycle_.manual()) {
        co_await stopManual();
        value["captureId"] = id;
        co_return value;
    }
    // The agent's reply waits for the finished video, not for its upload.
    auto stop = lifecycle_.phase() == RecordingLifecycle::Phase::recording
                    ? stopRecording("Saving…", true)
                    : stop_;
    if (stop) {
        co_await stop->finished->wait();
    }
    value["captureId"] = id;
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
    // The video is finished and kept; an upload under way finishes before the session ends.
    co_await closeRecording();
    if (stop_ && !stop_->done->done()) {
        auto done = stop_->done;
        try {
            co_await done->wait();
        } catch (...) {
            auto error = std::current_exception();
            if (ErrorText::isCancellation(error) && !done->done()) {
                throw;
            }
        }
    }
    co_return nlohmann::json{{"disposed", true}, {"captureId", id}};
}

}  // namespace pavix
