#include "core/session/ConsoleAddress.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/Studio.h"

namespace pavix {

asio::awaitable<nlohmann::json> Studio::post(std::string path, nlohmann::json body,
                                             ServiceRequests::Payload payload) {
    if (!endpoint_) {
        throw PavixError("Not connected");
    }
    co_return co_await sendTo(*endpoint_, token_, std::move(path), std::move(body),
                              std::move(payload));
}

asio::awaitable<nlohmann::json> Studio::sendTo(Url endpoint, std::optional<std::string> token,
                                               std::string path, nlohmann::json body,
                                               ServiceRequests::Payload payload) {
    auto request = ServiceRequests::build(endpoint, token, env_.appVersion, path, body,
                                          std::move(payload), env_.timing);
    auto response = co_await env_.http->send(std::move(request));
    if (response.status == 426) {
        // The latest version is preferred over the minimum so that the user installs the
        // newest build straight away.
        auto version = ServiceRequests::requiredVersion(response.body);
        change([&](StudioState& s) { s.update = UpdateDecision::required(version); });
    }
    co_return ServiceRequests::read(response);
}

void Studio::diagnose(const std::string& event, std::exception_ptr error) {
    auto code = ErrorText::errorCode(error);
    change([&](StudioState& s) { s.lastErrorCode = code; });
    if (!state_.diagnosticsOptIn || !token_ || !endpoint_) {
        return;
    }
    // Only the event, the code and the version leave the computer: no text, path or user data.
    nlohmann::json body = {{"event", event}, {"code", code}, {"appVersion", env_.appVersion}};
    spawnDetached([](Studio* self, nlohmann::json body) -> asio::awaitable<void> {
        try {
            co_await self->post("diagnostics", std::move(body));
        } catch (...) {
        }
    }(this, std::move(body)));
}

std::string Studio::consoleURL(const std::string& view) const {
    return pavix::consoleURL(view, env_.defaults->text("consoleURL"), state_.server);
}

}  // namespace pavix
