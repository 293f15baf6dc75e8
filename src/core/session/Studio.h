#pragma once

#include <asio/awaitable.hpp>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/capture/Capture.h"
#include "core/library/CaptureJournal.h"
#include "core/net/Url.h"
#include "core/runtime/SharedOutcome.h"
#include "core/runtime/Task.h"
#include "core/session/DeviceIdentity.h"
#include "core/session/DeviceKeychain.h"
#include "core/session/ServiceRequests.h"
#include "core/session/StudioEnvironment.h"
#include "core/session/StudioState.h"

namespace pavix {

// The one model object of the application: the agent session, the source list and, as they
// arrive, recording and upload. All of its state lives on the model executor; every operation
// is called there, and the asynchronous ones are coroutines that run there.
//
// Lifetime: destroy a Studio only when its executor no longer runs (its io_context stopped),
// so that no suspended operation resumes into a destroyed object.
class Studio {
  public:
    using Observer = std::function<void(const StudioState&)>;

    explicit Studio(StudioEnvironment environment);
    ~Studio();
    Studio(const Studio&) = delete;
    Studio& operator=(const Studio&) = delete;

    const StudioState& state() const { return state_; }
    void observe(Observer observer);

    // Start-up: recovers the local library and publishes it. A library that cannot be read
    // does not stop the launch; the status says so.
    void loadLibrary();
    const CaptureJournal& journal() const { return journal_; }

    // Start-up: the saved credential of the current server, when there is one.
    asio::awaitable<void> loadSavedIdentity();

    // --- user input
    void setServer(const std::string& server);
    void setCode(const std::string& code);
    void setConsent(bool consent);
    void setAllowControl(bool allow);
    void setDiagnosticsOptIn(bool optIn);

    // --- service client
    asio::awaitable<nlohmann::json> post(std::string path,
                                         nlohmann::json body = nlohmann::json::object(),
                                         ServiceRequests::Payload payload = {});
    void diagnose(const std::string& event, std::exception_ptr error);
    std::string consoleURL(const std::string& view) const;

    // --- pairing and credential
    void applySetupLink(const std::string& link);
    asio::awaitable<void> pair();
    asio::awaitable<void> remember(nlohmann::json reply);
    void scheduleRefresh(const std::string& generation);
    asio::awaitable<void> disconnect(std::string message);
    asio::awaitable<void> forgetDevice();
    asio::awaitable<void> autoShare();

    // --- command loop
    asio::awaitable<void> poll(std::string generation);
    void scheduleReconnect();
    void watch(const CaptureSource& source, const std::string& generation);
    // Runs one agent method and returns its value; throws what the method throws.
    asio::awaitable<nlohmann::json> run(std::string method, nlohmann::json args);

    // --- sources
    asio::awaitable<void> refreshSources();
    // Selects a source by id; throws PavixError when it is not in the list or while recording.
    void selectSource(const std::string& id);
    std::optional<CaptureSource> selectedSource() const;
    // Selects the source last chosen on this computer when it is listed, else the default one.
    void selectDefaultSource();

    // --- capture
    Capture& capture() { return *capture_; }
    const Capture& capture() const { return *capture_; }

    // --- recording
    // Why sharing or recording cannot begin now; none when it can.
    std::optional<std::string> shareBlocker() const;
    // Starts the user's own recording of the selected source (not while an agent session runs).
    asio::awaitable<void> recordNow();
    // Stops the user's recording, finishes the video and uploads it. A second stop while one
    // runs joins nothing and starts nothing.
    asio::awaitable<void> stopManual(std::optional<std::string> message = std::nullopt);
    // The record of the recording in progress, or of the last one until the next begins.
    const std::optional<LocalCapture>& current() const { return current_; }
    // Moves `current` to `stage` with the capture's measured facts, saves it and reloads the
    // library. Throws the journal's errors.
    void stage(LocalCapture::Stage stage);
    // Demo moments the agent marked on the current recording.
    const nlohmann::json& moments() const { return moments_; }

    // --- upload
    bool canRetry(const LocalCapture& capture) const;
    void retryUpload(const LocalCapture& capture);
    asio::awaitable<void> cancelUpload();
    bool uploadRunning() const { return retryTask_.running() || uploadTask_.running(); }

    // --- library
    asio::awaitable<void> applyRetention();
    bool canManageLocal(const LocalCapture& capture) const;
    asio::awaitable<void> deleteLocal(LocalCapture capture);
    std::string supportBundle() const;
    void copySupportBundle();
    void setAutoTrashUploaded(bool on);

    // Read-only views for the application and tests.
    const std::optional<DeviceIdentity>& identity() const { return identity_; }
    const std::string& connectionGeneration() const { return connectionGeneration_; }
    bool hasSessionToken() const { return token_.has_value(); }
    bool reconnectPending() const { return reconnectTask_.running(); }
    const Timing& timing() const { return env_.timing; }
    StudioEnvironment& environment() { return env_; }

  private:
    // Coroutines that may be started without being awaited at once take their arguments by
    // value: a reference could outlive what it refers to.
    friend struct StudioTestAccess;  // lets tests put the model in states other parts reach

    template <class F>
    void change(F&& mutate) {
        mutate(state_);
        for (auto& observer : observers_) {
            observer(state_);
        }
    }
    void setStatus(const std::string& status);
    // The user's sentence for a failure; capture failures get the capture guards' sentence.
    std::string describe(std::exception_ptr error) const;
    void log(const std::string& line) const;
    void spawnDetached(asio::awaitable<void> body);
    Task::ErrorHandler taskErrorHandler();

    asio::awaitable<void> connect();
    asio::awaitable<void> revokeCredential();
    asio::awaitable<void> discardSavedIdentity();
    nlohmann::json meta() const;
    asio::awaitable<nlohmann::json> runSessionMethod(const std::string& method,
                                                     const nlohmann::json& args);
    asio::awaitable<nlohmann::json> screenshot();
    asio::awaitable<void> postResult(const std::string& id, const nlohmann::json& body);
    asio::awaitable<void> watchdogLoop(CaptureSource source, std::string generation);
    asio::awaitable<void> refreshLater(std::string generation, Timing::ms delay);
    asio::awaitable<void> reconnectLater();

    // recording
    LocalCapture newRecord(const std::string& id, const CaptureSource& source) const;
    bool existsLocally(const std::string& id) const;
    void reloadRecent();
    void stageOrLog(LocalCapture::Stage next);
    asio::awaitable<void> beginRecording(const std::string& id, const CaptureSource& source);
    asio::awaitable<void> finalize();
    asio::awaitable<void> closeRecording();
    void captureFailed(const std::string& message);
    asio::awaitable<void> manualStop(std::optional<std::string> message,
                                     std::shared_ptr<SharedOutcome<bool>> done);
    asio::awaitable<void> recordingLimit(Timing::ms limit, std::string id);
    asio::awaitable<nlohmann::json> startRecordingCommand(const nlohmann::json& args);
    asio::awaitable<nlohmann::json> stopRecordingCommand();
    nlohmann::json markDemoMoment(const nlohmann::json& args);
    asio::awaitable<nlohmann::json> disposeCommand();
    nlohmann::json windowPreset(const std::string& requested, const CaptureSource& source);

    // library
    asio::awaitable<void> moveToTrash(std::filesystem::path file);

    // upload
    asio::awaitable<void> upload(LocalCapture capture, std::filesystem::path file);
    asio::awaitable<std::int64_t> sendPiece(std::string base, std::filesystem::path file,
                                            std::int64_t offset, std::int64_t size);
    asio::awaitable<void> handOver();
    asio::awaitable<void> agentHandOver();
    asio::awaitable<void> retry(LocalCapture capture);
    void restageAfterFailedUpload();

    StudioEnvironment env_;
    DeviceKeychain keychain_;
    CaptureJournal journal_;
    StudioState state_;
    std::vector<Observer> observers_;

    std::optional<Url> endpoint_;
    std::optional<std::string> token_;
    std::optional<DeviceIdentity> identity_;
    std::string connectionGeneration_;
    bool disconnecting_ = false;
    std::optional<std::string> lastSourceTitle_;
    std::unique_ptr<Capture> capture_;
    std::optional<LocalCapture> current_;
    bool finalizing_ = false;  // the running capture is being stopped and its file finished
    nlohmann::json moments_ = nlohmann::json::array();
    std::chrono::steady_clock::time_point recordingStarted_;
    std::shared_ptr<SharedOutcome<bool>> uploadDone_;  // resolved when uploadTask_ ends
    std::optional<nlohmann::json> windowReport_;
    // Set by a method that ends the session once its reply is delivered.
    std::optional<std::string> endAfterReply_;

    Task loop_;
    Task reconnectTask_;
    Task refreshTask_;
    Task watchdog_;
    Task timer_;
    Task retryTask_;
    Task manualTask_;
    Task uploadTask_;  // the upload that follows the agent's stop
    std::vector<Task> detached_;
};

// Seconds until the timed refresh: two minutes (the lead) before the access token expires,
// but never sooner than the floor.
Timing::ms refreshDelay(double accessExpiresAtMs, double nowMs, const Timing& timing);

}  // namespace pavix
