#include "core/capture/CaptureGuards.h"
#include "core/net/TransportError.h"
#include "core/runtime/Offload.h"
#include "core/runtime/Sleep.h"
#include "core/session/CommandEnvelope.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixHTTPError.h"
#include "core/session/Studio.h"

namespace pavix {
namespace {

// Whether a failed poll is worth a reconnect: an HTTP refusal marked transient, or no HTTP
// reply at all (which counts as status 0).
bool isTransient(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const PavixHTTPError& e) {
        return e.transient();
    } catch (const TransportError&) {
        return true;
    } catch (...) {
        return false;
    }
}

constexpr const char* kEndedByAgent =
    "The recording session expired or was ended by your agent. Approve a new recording to "
    "continue; local videos are preserved.";

}  // namespace

asio::awaitable<void> Studio::poll(std::string generation) {
    while (state_.connected && connectionGeneration_ == generation) {
        nlohmann::json reply;
        std::exception_ptr pollError;
        try {
            reply = co_await post("poll");
        } catch (...) {
            pollError = std::current_exception();
        }
        if (pollError) {
            if (!state_.connected || connectionGeneration_ != generation ||
                ErrorText::isCancellation(pollError)) {
                co_return;
            }
            if (isTransient(pollError)) {
                setStatus("Pavix is unreachable for a moment. Reconnecting…");
                change([](StudioState& s) { s.connected = false; });
                scheduleReconnect();
                co_return;
            }
            co_await disconnect(ErrorText::describe(pollError));
            co_return;
        }
        auto command = CommandEnvelope::parse(reply);
        if (!command) {
            continue;
        }
        std::exception_ptr failure;
        nlohmann::json value;
        try {
            value = co_await run(command->method, command->args);
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) {
            auto description = ErrorText::describe(failure);
            log("pavix command " + command->method + " failed: " + description);
            if (ErrorText::isCancellation(failure)) {
                co_return;  // the loop itself was cancelled with its connection
            }
            diagnose("command_failed", failure);
            // Answered even when the connection it came on has ended meanwhile; a reply that
            // cannot be delivered is dropped and the loop goes on (or ends at its check).
            try {
                nlohmann::json body = {{"error", CommandEnvelope::agentErrorText(description)}};
                co_await postResult(command->id, body);
            } catch (...) {
                if (ErrorText::isCancellation(std::current_exception())) {
                    co_return;
                }
            }
            continue;
        }
        if (connectionGeneration_ != generation) {
            co_return;  // the connection this result was computed for has ended
        }
        std::exception_ptr replyError;
        try {
            nlohmann::json body = {{"value", value}, {"meta", meta()}};
            co_await postResult(command->id, body);
        } catch (...) {
            replyError = std::current_exception();
        }
        if (replyError && ErrorText::isCancellation(replyError)) {
            co_return;
        }
        if (replyError) {
            log("pavix result " + command->method +
                " not delivered: " + ErrorText::describe(replyError));
        }
        if (endsSession(command->method) && connectionGeneration_ == generation) {
            // The agent has its answer; now the session ends.
            co_await disconnect(kEndedByAgent);
            co_return;
        }
    }
}

asio::awaitable<void> Studio::postResult(std::string id, nlohmann::json body) {
    co_await post("result/" + id, body);
}

void Studio::scheduleReconnect() {
    reconnectTask_ = Task::spawn(env_.executor, reconnectLater(), taskErrorHandler());
}

asio::awaitable<void> Studio::reconnectLater() {
    // The same wait every time: no growing back-off.
    co_await sleepFor(env_.timing.reconnectDelay);
    if (!state_.paired || state_.connected || state_.recording) {
        co_return;
    }
    // A start, stop or upload the user began while the connection was down ends first.
    while (lifecycle_.holdsSharing()) {
        co_await lifecycleChanged_.wait();
    }
    if (state_.paired && !state_.connected && !state_.recording) {
        co_await autoShare();
    }
}

void Studio::watch(const CaptureSource& source, const std::string& generation) {
    watchdog_ = Task::spawn(env_.executor, watchdogLoop(source, generation, lifecycle_.record()),
                            taskErrorHandler());
}

// Ends the recording when the disk fills up or its source goes away. The agent's recording is
// watched for as long as its connection lasts, the user's for as long as it runs.
asio::awaitable<void> Studio::watchdogLoop(CaptureSource source, std::string generation,
                                           std::string record) {
    auto watched = [&] {
        return lifecycle_.phase() == RecordingLifecycle::Phase::recording &&
               lifecycle_.record() == record &&
               (lifecycle_.manual() || connectionGeneration_ == generation);
    };
    for (;;) {
        co_await sleepFor(env_.timing.watchInterval);
        if (!watched()) {
            co_return;
        }
        auto measure = [volume = env_.volume, folder = env_.libraryFolder] {
            return volume->freeBytes(folder);
        };
        auto free = co_await offload(*env_.pool, std::move(measure));
        if (!watched()) {
            co_return;
        }
        if (auto message = CaptureGuards::recordingBlocked(free)) {
            co_await endRecording(record, *message);
            co_return;
        }
        ShareableContentSnapshot content;
        try {
            auto list = [provider = env_.content] { return provider->current(); };
            content = co_await offload(*env_.pool, std::move(list));
        } catch (...) {
            auto error = std::current_exception();
            if (ErrorText::isCancellation(error)) {
                throw;
            }
            log("watch could not list sources: " + ErrorText::describe(error));
            continue;
        }
        if (!watched()) {
            co_return;
        }
        std::vector<std::pair<std::uint32_t, bool>> windows;
        for (const auto& w : content.windows) {
            windows.emplace_back(w.id, w.onScreen);
        }
        std::vector<std::uint32_t> displays;
        for (const auto& d : content.displays) {
            displays.push_back(d.id);
        }
        auto presence =
            CaptureGuards::presence(source.windowIDs, source.displayIDs, windows, displays);
        if (auto message = CaptureGuards::message(presence)) {
            co_await endRecording(record, *message);
            co_return;
        }
    }
}

}  // namespace pavix
