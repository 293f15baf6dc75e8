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
    asio::awaitable<nlohmann::json> post(const std::string& path,
                                         nlohmann::json body = nlohmann::json::object(),
                                         ServiceRequests::Payload payload = {});
    void diagnose(const std::string& event, std::exception_ptr error);
    std::string consoleURL(const std::string& view) const;

    // --- pairing and credential
    void applySetupLink(const std::string& link);
    asio::awaitable<void> pair();
    asio::awaitable<void> remember(const nlohmann::json& reply);
    void scheduleRefresh(const std::string& generation);
    asio::awaitable<void> disconnect(const std::string& message);
    asio::awaitable<void> forgetDevice();
    asio::awaitable<void> autoShare();

    // --- command loop
    asio::awaitable<void> poll(std::string generation);
    void scheduleReconnect();
    void watch(const CaptureSource& source, const std::string& generation);
    // Runs one agent method and returns its value; throws what the method throws.
    asio::awaitable<nlohmann::json> run(const std::string& method, const nlohmann::json& args);

    // --- sources
    asio::awaitable<void> refreshSources();
    // Selects a source by id; throws PavixError when it is not in the list or while recording.
    void selectSource(const std::string& id);
    std::optional<CaptureSource> selectedSource() const;

    // --- capture
    Capture& capture() { return *capture_; }
    const Capture& capture() const { return *capture_; }

    // Read-only views for the application and tests.
    const std::optional<DeviceIdentity>& identity() const { return identity_; }
    const std::string& connectionGeneration() const { return connectionGeneration_; }
    bool hasSessionToken() const { return token_.has_value(); }
    bool reconnectPending() const { return reconnectTask_.running(); }
    const Timing& timing() const { return env_.timing; }
    StudioEnvironment& environment() { return env_; }

  private:
    friend struct StudioTestAccess;  // lets tests put the model in states other parts reach

    template <class F>
    void change(F&& mutate) {
        mutate(state_);
        for (auto& observer : observers_) {
            observer(state_);
        }
    }
    void setStatus(const std::string& status);
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

    Task loop_;
    Task reconnectTask_;
    Task refreshTask_;
    Task watchdog_;
    Task timer_;
    Task retryTask_;
    Task manualTask_;
    std::vector<Task> detached_;
};

// Seconds until the timed refresh: two minutes (the lead) before the access token expires,
// but never sooner than the floor.
Timing::ms refreshDelay(double accessExpiresAtMs, double nowMs, const Timing& timing);

}  // namespace pavix
