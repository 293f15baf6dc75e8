#include "core/session/Studio.h"

#include <asio/post.hpp>

#include <algorithm>

#include "core/app/ServiceAddresses.h"
#include "core/capture/CaptureError.h"
#include "core/capture/CaptureGuards.h"
#include "core/capture/CaptureSources.h"
#include "core/runtime/Offload.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"

namespace pavix {

Studio::Studio(StudioEnvironment environment)
    : env_(std::move(environment)),
      keychain_(*env_.secrets, *env_.pool),
      journal_(env_.libraryFolder),
      lifecycleChanged_(env_.executor),
      journalStrand_(asio::make_strand(*env_.pool)) {
    state_.server = ServiceAddresses::kDefaultServer;
    state_.allowControl = env_.defaults->boolean("allowControl").value_or(false);
    state_.diagnosticsOptIn = env_.defaults->boolean("diagnosticsOptIn").value_or(false);
    state_.showHUD = env_.defaults->boolean("showBar").value_or(true);
    state_.autoTrashUploaded = env_.defaults->boolean("autoTrashUploaded").value_or(true);
    state_.preferences.betaUpdates = env_.defaults->boolean("betaUpdates").value_or(false);
    state_.preferences.consoleURL = env_.defaults->text("consoleURL").value_or("");
    state_.preferences.captureMaxWidth = env_.defaults->integer("captureMaxWidth");
    state_.preferences.visualOnlyApps = env_.defaults->text("visualOnlyApps").value_or("");
    lastSourceTitle_ = env_.defaults->text("lastSourceTitle");
    Capture::Parts parts;
    parts.executor = env_.executor;
    parts.pool = env_.pool;
    parts.platform = env_.capture;
    parts.content = env_.content;
    parts.defaults = env_.defaults;
    parts.log = env_.log;
    parts.timing = env_.timing;
    parts.libraryLabel = env_.libraryLabel;
    capture_ = std::make_unique<Capture>(std::move(parts));
    capture_->onFailure = [this](const std::string& message) { captureFailed(message); };
}

Studio::~Studio() {
    releaseControl();
}

// The control session holds the platform's accessible elements, which belong to the control
// thread: the last reference goes there.
void Studio::releaseControl() {
    if (control_ && env_.controlThread) {
        asio::post(*env_.controlThread, [control = std::move(control_)] {});
    }
    control_.reset();
}

void Studio::observe(Observer observer) {
    observers_.push_back(std::move(observer));
}

void Studio::setStatus(const std::string& status) {
    log("status: " + status);
    change([&](StudioState& s) { s.status = status; });
}

std::string Studio::describe(std::exception_ptr error) const {
    try {
        std::rethrow_exception(error);
    } catch (const CaptureError& e) {
        return CaptureGuards::describe(e, env_.libraryLabel);
    } catch (...) {
        return ErrorText::describe(error);
    }
}

void Studio::log(const std::string& line) const {
    env_.log->line(line);
}

Task::ErrorHandler Studio::taskErrorHandler() {
    return [this](std::exception_ptr error) {
        log("task ended with an error: " + ErrorText::describe(error));
    };
}

void Studio::spawnDetached(asio::awaitable<void> body) {
    std::erase_if(detached_, [](const Task& task) { return !task.running(); });
    detached_.push_back(Task::spawn(env_.executor, std::move(body), taskErrorHandler()));
}

asio::awaitable<void> Studio::loadSavedIdentity() {
    try {
        identity_ = co_await keychain_.load(state_.server);
    } catch (...) {
        log("saved pairing could not be read: " + ErrorText::describe(std::current_exception()));
        identity_.reset();
    }
    if (identity_) {
        change([](StudioState& s) { s.paired = true; });
        setStatus("Computer paired. Select a source and approve a new recording.");
    }
}

void Studio::setServer(const std::string& server) {
    if (server == state_.server) {
        return;
    }
    // Each server has its own credential; the old one stays in the keyring under its server.
    identity_.reset();
    change([&](StudioState& s) {
        s.server = server;
        s.paired = false;
    });
}

void Studio::setCode(const std::string& code) {
    change([&](StudioState& s) { s.code = code; });
}

void Studio::setConsent(bool consent) {
    if (!transition([&](RecordingLifecycle& l) { return l.approve(consent); })) {
        log("consent refused while a recording is under way");
    } else if (consent) {
        capture_->prepareEncoder();  // a recording is likely to follow
    }
}

void Studio::publishLifecycle() {
    const bool consentChanged = state_.consent != lifecycle_.consent();
    change([&](StudioState& s) {
        s.consent = lifecycle_.consent();
        s.busy = lifecycle_.busy();
        s.recording = lifecycle_.recording();
        s.manual = lifecycle_.manual();
        s.uploading = lifecycle_.uploading();
        if (!s.uploading) {
            s.uploadRecord.clear();
            s.uploadProgress = 0.0;
        }
    });
    if (consentChanged) {
        log(std::string("consent=") + (state_.consent ? "true" : "false") +
            " blocker=" + shareBlocker().value_or("none"));
    }
    lifecycleChanged_.notify();
}

void Studio::setAllowControl(bool allow) {
    env_.defaults->set("allowControl", allow);
    change([&](StudioState& s) { s.allowControl = allow; });
}

void Studio::setPreferences(const Preferences& next) {
    auto& d = *env_.defaults;
    d.set("betaUpdates", next.betaUpdates);
    auto text = [&d](const char* key, const std::string& value) {
        if (value.empty()) {
            d.remove(key);
        } else {
            d.set(key, value);
        }
    };
    text("consoleURL", next.consoleURL);
    text("visualOnlyApps", next.visualOnlyApps);
    if (next.captureMaxWidth && *next.captureMaxWidth > 0) {
        d.set("captureMaxWidth", *next.captureMaxWidth);
    } else {
        d.remove("captureMaxWidth");
    }
    change([&](StudioState& s) {
        s.preferences = next;
        if (s.preferences.captureMaxWidth && *s.preferences.captureMaxWidth <= 0) {
            s.preferences.captureMaxWidth.reset();
        }
    });
}

void Studio::setShowHUD(bool show) {
    env_.defaults->set("showBar", show);
    change([&](StudioState& s) { s.showHUD = show; });
}

void Studio::setDiagnosticsOptIn(bool optIn) {
    env_.defaults->set("diagnosticsOptIn", optIn);
    change([&](StudioState& s) { s.diagnosticsOptIn = optIn; });
}

asio::awaitable<void> Studio::refreshSources() {
    try {
        auto work = [content = env_.content] { return content->current(); };
        auto snapshot = co_await offload(*env_.pool, std::move(work));
        auto sources = CaptureSources::list(snapshot, env_.ownPid);
        std::size_t windows = std::count_if(sources.begin(), sources.end(),
                                            [](const auto& s) { return !s.isDisplay(); });
        log("refresh listed " + std::to_string(windows) + " windows and " +
            std::to_string(sources.size() - windows) + " displays");
        change([&](StudioState& s) { s.sources = std::move(sources); });
    } catch (...) {
        auto error = std::current_exception();
        log("refresh failed: " + ErrorText::describe(error) + " domain=" +
            ErrorText::domain(error) + " code=" + std::to_string(ErrorText::number(error)));
    }
}

void Studio::selectSource(const std::string& id) {
    if (state_.recording) {
        throw PavixError("Cannot change the source while recording.");
    }
    auto found = std::find_if(state_.sources.begin(), state_.sources.end(),
                              [&](const CaptureSource& s) { return s.id == id; });
    if (found == state_.sources.end()) {
        throw PavixError("Source not found. Ask for the list again.");
    }
    lastSourceTitle_ = found->title;
    env_.defaults->set("lastSourceTitle", found->title);
    change([&](StudioState& s) { s.selection = id; });
}

void Studio::selectDefaultSource() {
    if (auto source = CaptureSources::defaultSource(state_.sources, lastSourceTitle_)) {
        change([&](StudioState& s) { s.selection = source->id; });
    }
}

std::optional<CaptureSource> Studio::selectedSource() const {
    for (const auto& source : state_.sources) {
        if (source.id == state_.selection) {
            return source;
        }
    }
    return std::nullopt;
}

asio::awaitable<void> Studio::autoShare() {
    // The agent's own upload does not hold a reconnect back: the session resumes beside it.
    if (!state_.paired || state_.connected || state_.recording || lifecycle_.holdsSharing() ||
        state_.update.kind == UpdateDecision::Kind::required) {
        co_return;
    }
    if (state_.selection.empty()) {
        selectDefaultSource();
    }
    if (!state_.selection.empty()) {
        co_await pair();
    }
}

}  // namespace pavix
