#pragma once

#include <asio/awaitable.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/capture/Capture.h"
#include "core/control/DesktopControl.h"
#include "core/library/CaptureJournal.h"
#include "core/library/RecordingLifecycle.h"
#include "core/net/Url.h"
#include "core/runtime/ChangeSignal.h"
#include "core/runtime/SharedOutcome.h"
#include "core/runtime/Task.h"
#include "core/session/DeviceIdentity.h"
#include "core/session/DeviceKeychain.h"
#include "core/session/ServiceRequests.h"
#include "core/session/StudioEnvironment.h"
#include "core/session/StudioState.h"
#include "core/sizing/WindowResize.h"

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
    // The user's approval of the next recording (single use). Refused while a recording
    // starts, runs or stops.
    void setConsent(bool consent);
    void setAllowControl(bool allow);
    void setDiagnosticsOptIn(bool optIn);
    // Keeps the settings the model reads where it uses them; empty values remove their keys.
    void setPreferences(const Preferences& preferences);
    // Shows or hides the floating bar, and keeps the choice under "showBar".
    void setShowHUD(bool show);

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
    // Whether a method ends the session once its reply is delivered.
    static bool endsSession(const std::string& method) { return method == "dispose"; }

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
    // Why sharing with the agent cannot begin now; none when it can.
    std::optional<std::string> shareBlocker() const;
    // Why the user's own recording cannot begin now; none when it can.
    std::optional<std::string> recordBlocker() const;
    // Starts the user's own recording of the selected source (not while an agent session runs).
    asio::awaitable<void> recordNow();
    // Stops the user's recording, finishes the video and uploads it. A second stop while one
    // runs joins nothing and starts nothing.
    asio::awaitable<void> stopManual(std::optional<std::string> message = std::nullopt);
    // The record of the recording in progress, or of the last one until the next begins.
    const std::optional<LocalCapture>& current() const { return current_; }
    // Moves `current` to `stage` with the capture's measured facts, saves it and reloads the
    // library, off the model executor and within a bound. Throws the journal's errors.
    asio::awaitable<void> stage(LocalCapture::Stage stage);
    // The recording's way from approval to upload: what runs now and what may happen next.
    const RecordingLifecycle& lifecycle() const { return lifecycle_; }
    // Returns after the next change of the lifecycle.
    asio::awaitable<void> lifecycleChange() { co_await lifecycleChanged_.wait(); }
    // Demo moments the agent marked on the current recording.
    const nlohmann::json& moments() const { return moments_; }

    // --- upload
    bool canRetry(const LocalCapture& capture) const;
    void retryUpload(const LocalCapture& capture);
    asio::awaitable<void> cancelUpload();

    // --- library
    asio::awaitable<void> applyRetention();
    bool canManageLocal(const LocalCapture& capture) const;
    asio::awaitable<void> deleteLocal(LocalCapture capture);
    std::string supportBundle() const;
    asio::awaitable<void> copySupportBundle();
    void setAutoTrashUploaded(bool on);

    // --- updates
    // Where the update manifest of this build lives for the service at `server`: its download
    // path. Nothing when `server` is not a service address.
    static std::optional<std::string> manifestURL(const std::string& server);
    // Reads the manifest and the service's version answer, decides with the update policy,
    // stores the time under "lastUpdateCheck" and publishes the decision. Once a day at most
    // (never while recording) unless `force`d. A failed read counts as no answer.
    asio::awaitable<void> checkForUpdate(bool force);

    // --- shell
    static constexpr const char* disconnectedMessage =
        "Disconnected. Local videos remain on this computer.";
    // The user's "Stop sharing": the session ends, and a recording in progress is finished and
    // kept on this computer.
    asio::awaitable<void> stopSharing();
    // Sleep, a screen lock or a switch to another user: a connected session or a running
    // recording ends with the sentence that says so; an idle computer changes nothing.
    asio::awaitable<void> systemSessionEnding();
    // Quitting: the session ends, and a recording is finished and kept, before the exit.
    asio::awaitable<void> quit();
    // The user's "Stop recording": their own recording is stopped and uploaded; the agent's
    // ends the session, and its video is kept here.
    asio::awaitable<void> stopAnyRecording();
    // When the recording in progress started; nothing while none runs.
    std::optional<std::chrono::steady_clock::time_point> recordingSince() const;
    // The window's live preview of the selected source: while asked for, `sink` gets its new
    // pictures, at most `maxWidth` × `maxHeight` pixels, on the preview stream's thread. It
    // follows the selection, and pauses while a recording starts, runs or stops: a preview
    // never takes from a recording. Nothing ends it.
    struct PreviewRequest {
        int maxWidth = 0;
        int maxHeight = 0;
        PreviewFeed::Sink sink;
    };
    void setPreview(std::optional<PreviewRequest> request);

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
        followPreview();
    }
    // Starts, moves or ends the preview as the request, the selection and the recording say.
    void followPreview();
    // Applies one step of the recording's lifecycle and publishes the flags it decides.
    // Returns whether the step was allowed; a refused step changes nothing.
    template <class F>
    bool transition(F&& step) {
        auto allowed = step(lifecycle_);
        if (allowed) {
            publishLifecycle();
        }
        return allowed;
    }
    void publishLifecycle();
    void setStatus(const std::string& status);
    // The user's sentence for a failure; capture failures get the capture guards' sentence.
    std::string describe(std::exception_ptr error) const;
    void log(const std::string& line) const;
    void spawnDetached(asio::awaitable<void> body);
    Task::ErrorHandler taskErrorHandler();

    // `post` to a given address with a given token: for ending a session whose address and
    // token are already forgotten by the model.
    asio::awaitable<nlohmann::json> sendTo(Url endpoint, std::optional<std::string> token,
                                           std::string path,
                                           nlohmann::json body = nlohmann::json::object(),
                                           ServiceRequests::Payload payload = {});
    asio::awaitable<void> connect();
    asio::awaitable<void> revokeCredential();
    asio::awaitable<void> discardSavedIdentity();
    nlohmann::json meta() const;
    // The control session for the shared window, opened on the control thread when the
    // agent first operates it or the shared window changed.
    asio::awaitable<std::shared_ptr<DesktopControl>> desktopControl(std::uint32_t windowID);
    void releaseControl();
    asio::awaitable<nlohmann::json> runSessionMethod(const std::string& method,
                                                     const nlohmann::json& args);
    asio::awaitable<nlohmann::json> screenshot();
    asio::awaitable<void> postResult(std::string id, nlohmann::json body);
    asio::awaitable<void> watchdogLoop(CaptureSource source, std::string generation,
                                       std::string record);
    asio::awaitable<void> refreshLater(std::string generation, Timing::ms delay);
    asio::awaitable<void> reconnectLater();
    // Ends the recording `record` for a reason found while it ran (the limit, the watchdog, a
    // capture failure): the user's own is stopped and uploaded, the agent's ends the session.
    asio::awaitable<void> endRecording(std::string record, std::string message);

    // library (journal work runs off the model executor, one job at a time, within a bound)
    asio::awaitable<void> saveRecord(LocalCapture record);
    asio::awaitable<void> removeRecord(LocalCapture record);
    asio::awaitable<void> reloadRecent();
    asio::awaitable<void> stageOrLog(LocalCapture::Stage next);

    // recording
    LocalCapture newRecord(const std::string& id, const CaptureSource& source) const;
    asio::awaitable<bool> existsLocally(std::string id);
    asio::awaitable<void> beginRecording(std::string id, CaptureSource source);
    // Starts the capture as a task of its own that nothing cancels: a capture is never left
    // half started. A session that ended meanwhile gets the recording closed at once.
    asio::awaitable<void> startCapture(RecordingLifecycle::Owner owner, std::string id,
                                       CaptureSource source, std::string generation,
                                       Timing::ms limit, std::shared_ptr<SharedOutcome<bool>> done);
    asio::awaitable<void> runStart(RecordingLifecycle::Owner owner, std::string id,
                                   CaptureSource source, Timing::ms limit);
    void startFailed(RecordingLifecycle::Owner owner, std::exception_ptr failure);
    void startTimers(const CaptureSource& source, Timing::ms limit);
    asio::awaitable<void> finalize();
    // Starts the stop of the running recording (the capture finished, then the upload when
    // `handOver`); a stop already under way is returned, not started again.
    struct Stop {
        std::shared_ptr<SharedOutcome<bool>> finished;  // the video is finished (or failed)
        std::shared_ptr<SharedOutcome<bool>> done;      // and its upload ended
    };
    std::optional<Stop> stopRecording(const std::string& message, bool handOver);
    asio::awaitable<void> finishRecording(RecordingLifecycle::Owner owner, bool handOver,
                                          std::string generation, Stop stop);
    asio::awaitable<void> closeRecording();
    void captureFailed(const std::string& message);
    asio::awaitable<nlohmann::json> startRecordingCommand(nlohmann::json args);
    asio::awaitable<nlohmann::json> stopRecordingCommand();
    nlohmann::json markDemoMoment(const nlohmann::json& args);
    asio::awaitable<nlohmann::json> disposeCommand();
    // Brings a shared window to the preset before the agent's recording, when the user lets
    // the agent operate it; otherwise the report says why it was left alone. Never throws.
    asio::awaitable<WindowSizing::Report> sizeWindow(const std::string& requested,
                                                     const CaptureSource& source);
    // Puts a window that sizeWindow changed back as it was; notes the outcome in the report.
    asio::awaitable<void> restoreWindow();

    // library
    asio::awaitable<void> moveToTrash(std::filesystem::path file);

    // upload
    asio::awaitable<void> upload(LocalCapture capture, std::filesystem::path file);
    asio::awaitable<std::int64_t> sendPiece(std::string base, std::filesystem::path file,
                                            std::int64_t offset, std::int64_t size);
    asio::awaitable<void> handOver(RecordingLifecycle::Owner owner,
                                   std::shared_ptr<SharedOutcome<bool>> done);
    asio::awaitable<void> retry(LocalCapture capture);
    asio::awaitable<void> restageAfterFailedUpload();

    StudioEnvironment env_;
    DeviceKeychain keychain_;
    CaptureJournal journal_;
    StudioState state_;
    std::vector<Observer> observers_;

    std::optional<Url> endpoint_;
    std::optional<std::string> token_;
    std::optional<DeviceIdentity> identity_;
    std::string connectionGeneration_;
    std::optional<std::string> lastSourceTitle_;
    std::unique_ptr<Capture> capture_;
    std::optional<PreviewRequest> previewRequest_;
    std::optional<LocalCapture> current_;
    RecordingLifecycle lifecycle_;
    ChangeSignal lifecycleChanged_;
    std::optional<Stop> stop_;        // the stop of the current recording, once one began
    std::set<std::string> removing_;  // records whose copy is on its way to the Trash
    nlohmann::json moments_ = nlohmann::json::array();
    std::chrono::steady_clock::time_point recordingStarted_;
    std::optional<WindowSizing::Report> windowReport_;
    std::optional<WindowResize> windowUndo_;
    asio::strand<asio::thread_pool::executor_type> journalStrand_;
    // Used only on the control thread; held here so that it lives across the agent's calls.
    std::shared_ptr<DesktopControl> control_;
    // The pointer samples of the last control method, sent with its reply.
    ControlTelemetry controlTelemetry_;  // of the last control method

    Task loop_;
    Task reconnectTask_;
    Task refreshTask_;
    Task watchdog_;
    Task timer_;
    Task retryTask_;
    Task startTask_;   // starts the capture; never cancelled by the session's end
    Task stopTask_;    // finishes the video; never cancelled by the session's end
    Task uploadTask_;  // the upload that follows a stop
    std::vector<Task> detached_;
};

// Seconds until the timed refresh: two minutes (the lead) before the access token expires,
// but never sooner than the floor.
Timing::ms refreshDelay(double accessExpiresAtMs, double nowMs, const Timing& timing);

}  // namespace pavix
