#include <algorithm>
#include <array>
#include <chrono>

#include "core/app/ServiceAddresses.h"
#include "core/control/VisualOutline.h"
#include "core/runtime/Base64.h"
#include "core/runtime/Offload.h"
#include "core/session/CommandEnvelope.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/Studio.h"

namespace pavix {
namespace {

nlohmann::json describeSource(const CaptureSource& source) {
    return {{"id", source.id},
            {"title", source.title},
            {"width", source.width},
            {"height", source.height}};
}

}  // namespace

asio::awaitable<nlohmann::json> Studio::run(std::string method, nlohmann::json args) {
    controlTelemetry_ = {};
    if (DesktopControl::serves(method)) {
        if (!state_.allowControl) {
            throw PavixError(
                "local_method_forbidden: turn on Let your agent operate the shared window in "
                "Pavix Settings");
        }
        auto source = selectedSource();
        if (!source || source->isDisplay() || source->windowIDs.empty()) {
            throw PavixError("local_method_forbidden: share a window, not a display");
        }
        auto control = co_await desktopControl(source->windowIDs.front());
        // The telemetry of this call is placed in what is being recorded now.
        control->place(capture_->running() ? capture_->region() : std::nullopt);
        auto handle = [control, method, args] { return control->handle(method, args); };
        const auto started = std::chrono::steady_clock::now();
        std::exception_ptr failure;
        nlohmann::json value;
        try {
            value = co_await offloadTo(env_.controlThread->get_executor(), std::move(handle));
        } catch (...) {
            failure = std::current_exception();
        }
        // What the pointer did goes with the reply, whether the method succeeded or not.
        controlTelemetry_ = control->takeTelemetry();
        if (env_.controlLog) {
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - started)
                                .count();
            log("control " + method + " (" + std::to_string(args.dump().size()) +
                " bytes of arguments) " +
                (failure ? "failed: " + ErrorText::describe(failure) : std::string("done")) +
                " in " + std::to_string(ms) + " ms, " +
                std::to_string(controlTelemetry_.pointerTrail.size()) + " pointer samples");
        }
        if (failure) {
            std::rethrow_exception(failure);
        }
        co_return value;
    }
    co_return co_await runSessionMethod(method, args);
}

asio::awaitable<std::shared_ptr<DesktopControl>> Studio::desktopControl(std::uint32_t windowID) {
    if (!env_.accessibility || !env_.accessibleActions || !env_.desktopInput ||
        !env_.controlThread) {
        throw PavixError("local_method_forbidden: Accessibility permission is off");
    }
    // The user's canvas applications, as the settings hold them now.
    auto canvasApps = VisualOutline::appList(env_.defaults->text("visualOnlyApps").value_or(""));
    if (!control_ || control_->windowID() != windowID) {
        releaseControl();
        ControlParts parts{*env_.accessibility, *env_.accessibleActions, *env_.desktopInput,
                           *env_.content};
        parts.picture = env_.windowPicture;
        parts.recognizer = env_.textRecognizer;
        OutlineOptions options;
        options.identityName = env_.userFullName;
        auto open = [parts, windowID, options] {
            return std::make_shared<DesktopControl>(parts, windowID, options);
        };
        control_ = co_await offloadTo(env_.controlThread->get_executor(), std::move(open));
    }
    control_->useCanvasApps(std::move(canvasApps));
    co_return control_;
}

asio::awaitable<nlohmann::json> Studio::runSessionMethod(const std::string& method,
                                                         const nlohmann::json& args) {
    if (method == "currentUrl") {
        // Without a control session the answer is the service's site, never an error.
        co_return std::string(ServiceAddresses::kConsole);
    }
    if (method == "listSources") {
        co_await refreshSources();
        nlohmann::json sources = nlohmann::json::array();
        for (const auto& source : state_.sources) {
            auto entry = describeSource(source);
            entry["kind"] = source.isDisplay() ? "display" : "window";
            sources.push_back(entry);
        }
        co_return nlohmann::json{{"sources", sources}, {"selected", state_.selection}};
    }
    if (method == "selectSource") {
        auto named = CommandEnvelope::namedArguments(args);
        auto id = named.find("sourceId");
        selectSource(id != named.end() && id->is_string() ? id->get<std::string>() : "");
        log("agent selected source " + state_.selection);
        co_return nlohmann::json{{"selected", describeSource(*selectedSource())}};
    }
    if (method == "screenshot") {
        co_return co_await screenshot();
    }
    if (method == "startRecording") {
        co_return co_await startRecordingCommand(args);
    }
    if (method == "stopRecording") {
        co_return co_await stopRecordingCommand();
    }
    if (method == "markDemoMoment") {
        co_return markDemoMoment(args);
    }
    if (method == "dispose") {
        co_return co_await disposeCommand();
    }
    throw PavixError("Unknown method " + (method.empty() ? std::string("(none)") : method) + ".");
}

asio::awaitable<nlohmann::json> Studio::screenshot() {
    if (capture_->running()) {
        throw PavixError("Preview is available after recording stops.");
    }
    auto source = selectedSource();
    if (!source) {
        throw PavixError("Screenshot unavailable");
    }
    std::vector<std::uint8_t> png;
    std::exception_ptr failure;
    try {
        png = co_await capture_->still(*source);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        log("screenshot failed: " + ErrorText::describe(failure));
        throw PavixError("Screenshot unavailable");
    }
    nlohmann::json body = {{"$bytes", Base64::encode(png)}};
    co_return nlohmann::json{
        {"body", body}, {"contentType", "image/png"}, {"redactionPassed", false}};
}

nlohmann::json Studio::meta() const {
    nlohmann::json viewport = {{"width", 0}, {"height", 0}};
    if (capture_->encoding()) {
        viewport = {{"width", capture_->width()}, {"height", capture_->height()}};
    } else if (auto source = selectedSource()) {
        viewport = {{"width", source->width}, {"height", source->height}};
    }
    nlohmann::json meta = {{"captureViewport", viewport},
                           {"recordingMode", "screencast"},
                           {"pointerTrail", controlTelemetry_.pointerTrail},
                           {"identitySightings", controlTelemetry_.identitySightings}};
    if (windowReport_) {
        meta["desktopWindow"] = windowReport_->payload();
    }
    return meta;
}

}  // namespace pavix
