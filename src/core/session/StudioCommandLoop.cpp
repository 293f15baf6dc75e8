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
        if (failure && ErrorText::isCancellation(failure) && connectionGeneration_ != generation) {
            co_return;
        }
        if (connectionGeneration_ != generation) {
            co_return;  // the connection this result was computed for has ended
        }
        if (!failure) {
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
            if (endAfterReply_) {
                // The method asked to end the session once the agent had its answer.
                auto message = *endAfterReply_;
                endAfterReply_.reset();
                co_await disconnect(message);
                co_return;
            }
            continue;
        }
        auto description = ErrorText::describe(failure);
        diagnose("command_failed", failure);
        log("pavix command " + command->method + " failed: " + description);
        // A reply that cannot be delivered is dropped; the loop goes on.
        std::exception_ptr replyError;
        try {
            nlohmann::json body = {{"error", CommandEnvelope::agentErrorText(description)}};
            co_await postResult(command->id, body);
        } catch (...) {
            replyError = std::current_exception();
        }
        if (replyError && ErrorText::isCancellation(replyError)) {
            co_return;
        }
    }
}

asio::awaitable<void> Studio::postResult(const std::string& id, const nlohmann::json& body) {
    co_await post("result/" + id, body);
}

void Studio::scheduleReconnect() {
    reconnectTask_ = Task::spawn(env_.executor, reconnectLater(), taskErrorHandler());
}

asio::awaitable<void> Studio::reconnectLater() {
    // The same wait every time: no growing back-off.
    co_await sleepFor(env_.timing.reconnectDelay);
    if (state_.paired && !state_.connected && !state_.recording) {
        co_await autoShare();
    }
}

void Studio::watch(const CaptureSource& source, const std::string& generation) {
    watchdog_ = Task::spawn(env_.executor, watchdogLoop(source, generation), taskErrorHandler());
}

asio::awaitable<void> Studio::watchdogLoop(CaptureSource source, std::string generation) {
    for (;;) {
        co_await sleepFor(env_.timing.watchInterval);
        if (connectionGeneration_ != generation || !state_.recording) {
            co_return;
        }
        auto measure = [volume = env_.volume, folder = env_.libraryFolder] {
            return volume->freeBytes(folder);
        };
        auto free = co_await offload(*env_.pool, std::move(measure));
        if (connectionGeneration_ != generation || !state_.recording) {
            co_return;
        }
        if (auto message = CaptureGuards::recordingBlocked(free)) {
            co_await disconnect(*message);
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
        if (connectionGeneration_ != generation || !state_.recording) {
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
            co_await disconnect(*message);
            co_return;
        }
    }
}

}  // namespace pavix
