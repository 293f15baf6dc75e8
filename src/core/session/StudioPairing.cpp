#include <algorithm>
#include <asio/this_coro.hpp>
#include <utility>

#include "core/net/Url.h"
#include "core/runtime/Sleep.h"
#include "core/runtime/Uuid.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/PavixHTTPError.h"
#include "core/session/Studio.h"

namespace pavix {
namespace {

std::string trimmed(const std::string& text) {
    const char* space = " \t\r\n\v\f";
    auto first = text.find_first_not_of(space);
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

const char* yesNo(bool flag) {
    return flag ? "true" : "false";
}

}  // namespace

Timing::ms refreshDelay(double accessExpiresAtMs, double nowMs, const Timing& timing) {
    double seconds = accessExpiresAtMs / 1000.0 - nowMs / 1000.0 -
                     static_cast<double>(timing.refreshLead.count()) / 1000.0;
    auto delay = Timing::ms(static_cast<long long>(seconds * 1000.0));
    return std::max(delay, timing.refreshFloor);
}

void Studio::applySetupLink(const std::string& link) {
    auto url = Url::parse(link);
    if (!url || url->scheme != "pavix-mac") {
        return;
    }
    if (url->host != "pair") {
        setStatus("This Pavix link is not supported.");
        return;
    }
    auto server = url->queryItem("server").value_or("");
    auto code = url->queryItem("code").value_or("");
    auto serverURL = Url::parse(server);
    bool supported = serverURL && serverURL->hasAuthority && !serverURL->host.empty() &&
                     (serverURL->scheme == "https" ||
                      (serverURL->scheme == "http" &&
                       (serverURL->host == "127.0.0.1" || serverURL->host == "localhost")));
    if (!supported) {
        setStatus("The setup link points to an unsupported server. Use an HTTPS Pavix server.");
        return;
    }
    if (lifecycle_.capturing()) {
        setStatus("Finish or stop the current recording before using a setup link.");
        return;
    }
    if (server != state_.server) {
        if (state_.connected || token_) {
            // The session with the old server ends first, so that nothing of it ever reaches
            // the new one; then the link is followed as if it had just arrived.
            auto follow = [](Studio* self, std::string link) -> asio::awaitable<void> {
                co_await self->disconnect("Setup link received. Connecting…");
                self->applySetupLink(link);
            };
            spawnDetached(follow(this, link));
            return;
        }
        setServer(server);
    }
    if (state_.paired && identity_) {
        auto host = serverURL->host.empty() ? std::string("this server") : serverURL->host;
        setStatus("This computer is already paired with " + host + ".");
        spawnDetached(pair());
        return;
    }
    if (code.empty()) {
        setStatus("Setup link received without a code. Ask for a new link.");
        return;
    }
    setCode(code);
    setStatus("Setup link received. Connecting…");
    spawnDetached(pair());
}

asio::awaitable<void> Studio::pair() {
    const char* codeState = state_.code.empty() ? "empty" : "present";
    log(std::string("share requested busy=") + yesNo(state_.busy) +
        " connected=" + yesNo(state_.connected) +
        " selection=" + (state_.selection.empty() ? "none" : state_.selection) +
        " paired=" + yesNo(state_.paired) + " code=" + codeState);
    if (!transition([](RecordingLifecycle& l) { return l.beginPairing(); })) {
        co_return;
    }
    auto endPairing = [this] {
        transition([](RecordingLifecycle& l) {
            l.endPairing();
            return true;
        });
    };

    std::optional<Url> validated;
    std::exception_ptr invalid;
    try {
        validated = ServiceRequests::validatedEndpoint(state_.server);
    } catch (...) {
        invalid = std::current_exception();
    }
    if (invalid) {
        auto error = invalid;
        log("pair failed: " + ErrorText::describe(error));
        diagnose("pair_failed", error);
        if (state_.connected) {
            // The session of the earlier server ends there before its token is forgotten.
            co_await disconnect(ErrorText::describe(error));
        } else if (token_) {
            auto token = std::exchange(token_, std::nullopt);
            auto endpoint = std::exchange(endpoint_, std::nullopt);
            if (endpoint) {
                try {
                    co_await sendTo(*endpoint, token, "disconnect");
                } catch (...) {
                }
            }
        }
        setStatus(ErrorText::describe(error));
        endPairing();
        co_return;
    }
    endpoint_ = validated;

    const auto generation = connectionGeneration_;
    std::exception_ptr failure;
    try {
        co_await connect();
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure && connectionGeneration_ != generation) {
        // The computer went to sleep or the session was ended while this one was being made:
        // it ends at the server too, and the status stays what that end said.
        log("pair abandoned: the session ended meanwhile");
        auto token = std::exchange(token_, std::nullopt);
        if (token && endpoint_) {
            try {
                co_await sendTo(*endpoint_, token, "disconnect");
            } catch (...) {
            }
        }
        endPairing();
        co_return;
    }
    if (failure) {
        auto error = failure;
        if (ErrorText::isCancellation(error)) {
            // Cancelled by the end of the session that asked for it: that end has the last word.
            if (!state_.connected) {
                token_.reset();
            }
            endPairing();
            co_return;
        }
        log("pair failed: " + ErrorText::describe(error));
        diagnose("pair_failed", error);
        setStatus(ErrorText::describe(error));
        endPairing();
        co_return;
    }

    connectionGeneration_ = Uuid::make();
    change([](StudioState& s) { s.connected = true; });
    endPairing();
    setStatus("Computer paired. Select a source and approve a new recording.");
    scheduleRefresh(connectionGeneration_);
    loop_ = Task::spawn(env_.executor, poll(connectionGeneration_), taskErrorHandler());
}

// Resumes with the saved credential, or pairs with the code. Throws on failure.
asio::awaitable<void> Studio::connect() {
    if (identity_) {
        try {
            nlohmann::json body = {{"refreshToken", identity_->refreshToken}};
            auto reply = co_await post("device/refresh", body);
            co_await remember(reply);
            co_await post("device/resume");
            co_return;
        } catch (const PavixHTTPError& e) {
            if (e.status() != 401) {
                throw;
            }
            log("saved pairing rejected by server; discarding it (code " +
                e.code().value_or("none") + ")");
        }
        co_await discardSavedIdentity();
        if (state_.code.empty()) {
            throw PavixError(
                "This computer's saved pairing is no longer valid. Enter a new code from your "
                "agent or open a setup link, then share again.");
        }
    }
    nlohmann::json request = {
        {"code", trimmed(state_.code)}, {"persistent", true}, {"deviceName", env_.deviceName}};
    auto reply = co_await post("pair", request);
    auto token = reply.find("token");
    if (token == reply.end() || !token->is_string()) {
        throw PavixError("Invalid pairing response");
    }
    token_ = token->get<std::string>();
    auto mode = reply.find("mode");
    if (mode == reply.end() || !mode->is_string() || mode->get<std::string>() != "desktop") {
        throw PavixError("Ask your agent to use desktop_recording_pair for this computer app.");
    }
    co_await remember(reply);
    // A pairing code works once; keeping it would only invite a second, failing pairing.
    setCode("");
}

asio::awaitable<void> Studio::remember(nlohmann::json reply) {
    auto identity = DeviceIdentity::fromJson(reply);
    token_ = identity.accessToken;
    co_await keychain_.save(identity, state_.server);
    identity_ = identity;
    change([](StudioState& s) { s.paired = true; });
}

void Studio::scheduleRefresh(const std::string& generation) {
    refreshTask_.cancel();
    if (!identity_) {
        return;
    }
    auto delay = refreshDelay(identity_->accessExpiresAt, env_.nowMs(), env_.timing);
    refreshTask_ = Task::spawn(env_.executor, refreshLater(generation, delay), taskErrorHandler());
}

asio::awaitable<void> Studio::refreshLater(std::string generation, Timing::ms delay) {
    co_await sleepFor(delay);
    if (connectionGeneration_ != generation || !identity_) {
        co_return;
    }
    try {
        nlohmann::json body = {{"refreshToken", identity_->refreshToken}};
        auto reply = co_await post("device/refresh", body);
        if (connectionGeneration_ != generation) {
            co_return;  // a newer connection owns the credential now
        }
        co_await remember(reply);
        scheduleRefresh(generation);
    } catch (...) {
        auto error = std::current_exception();
        if (ErrorText::isCancellation(error)) {
            throw;
        }
        log("refresh failed: " + ErrorText::describe(error) + " domain=" +
            ErrorText::domain(error) + " code=" + std::to_string(ErrorText::number(error)));
    }
}

asio::awaitable<void> Studio::disconnect(std::string message) {
    connectionGeneration_ = Uuid::make();
    loop_.cancel();
    timer_.cancel();
    watchdog_.cancel();
    reconnectTask_.cancel();
    refreshTask_.cancel();
    uploadTask_.cancel();
    retryTask_.cancel();
    // The caller may be one of the tasks just cancelled (the poll loop, the watchdog, the
    // limit timer); what follows must still finish the recording and reach the server.
    co_await asio::this_coro::reset_cancellation_state();
    change([](StudioState& s) { s.connected = false; });
    transition([](RecordingLifecycle& l) { return l.approve(false); });
    co_await closeRecording();
    co_await restoreWindow();  // sized for a recording that never started
    setStatus(message);
    // The session is over from here on: a pairing that starts meanwhile gets its own token.
    auto token = std::exchange(token_, std::nullopt);
    auto endpoint = std::exchange(endpoint_, std::nullopt);
    if (!token || !endpoint) {
        log("disconnect skipped: no session token");
        co_return;
    }
    try {
        co_await sendTo(*endpoint, token, "disconnect");
        log("disconnect acknowledged by server");
    } catch (...) {
        log("disconnect not delivered: " + ErrorText::describe(std::current_exception()));
    }
}

asio::awaitable<void> Studio::forgetDevice() {
    const std::string message = disconnectedMessage;
    // No pairing may run beside it: one that finished later would bring the credential back.
    while (!transition([](RecordingLifecycle& l) { return l.beginForgetting(); })) {
        co_await lifecycleChanged_.wait();
    }
    co_await disconnect(message);
    if (identity_) {
        co_await revokeCredential();
    }
    co_await discardSavedIdentity();
    transition([](RecordingLifecycle& l) {
        l.endPairing();
        return true;
    });
    setStatus(message);
}

// Forgets the credential here: the keyring item, the one in memory and the session token.
asio::awaitable<void> Studio::discardSavedIdentity() {
    if (identity_) {
        try {
            co_await keychain_.remove(state_.server);
        } catch (...) {
            log("saved pairing could not be removed: " +
                ErrorText::describe(std::current_exception()));
        }
    }
    identity_.reset();
    token_.reset();
    change([](StudioState& s) { s.paired = false; });
}

// Tells the server to revoke the credential, refreshing the access token first when it has
// expired. A server that cannot be reached does not keep the credential on this computer.
asio::awaitable<void> Studio::revokeCredential() {
    try {
        auto endpoint = ServiceRequests::validatedEndpoint(state_.server);
        auto identity = *identity_;
        if (identity.accessExpiresAt <= env_.nowMs()) {
            nlohmann::json body = {{"refreshToken", identity.refreshToken}};
            auto reply = co_await sendTo(endpoint, identity.accessToken, "device/refresh", body);
            identity = DeviceIdentity::fromJson(reply);
        }
        nlohmann::json revoke = {{"refreshToken", identity.refreshToken}};
        co_await sendTo(endpoint, identity.accessToken, "device/revoke", revoke);
        log("device credential revoked by server");
    } catch (...) {
        log("revoke not delivered: " + ErrorText::describe(std::current_exception()));
    }
}

}  // namespace pavix
