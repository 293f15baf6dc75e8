#include <chrono>
#include <regex>

#include "core/app/AppVersion.h"
#include "core/app/UpdatePolicy.h"
#include "core/session/ErrorText.h"
#include "core/session/ServiceRequests.h"
#include "core/session/Studio.h"

// Looking for a newer Pavix: the update manifest and the service's own version answer.

namespace pavix {
namespace {

// Plain GET of a small JSON document: no credential, no version header, nothing followed.
HttpRequest fetch(std::string url) {
    HttpRequest request;
    request.method = "GET";
    request.url = std::move(url);
    request.timeout = std::chrono::seconds(15);
    request.maxReplyBytes = 64u << 10;
    return request;
}

// A build whose version is not a dotted number (a developer's "dev") is never asked to update.
bool isRelease(const std::string& version) {
    static const std::regex dotted("^[0-9]+(\\.[0-9]+)*$");
    return std::regex_match(version, dotted);
}

std::optional<std::string> textOf(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

}  // namespace

std::optional<std::string> Studio::manifestURL(const std::string& server) {
    try {
        return ServiceRequests::validatedEndpoint(server).origin() + "/downloads/pavix-linux.json";
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

asio::awaitable<void> Studio::checkForUpdate(bool force) {
    const auto now = UpdatePolicy::Clock::now();
    const bool recording = lifecycle_.capturing();
    std::optional<UpdatePolicy::Clock::time_point> last;
    if (auto seconds = env_.defaults->integer("lastUpdateCheck")) {
        last = UpdatePolicy::Clock::time_point(std::chrono::seconds(*seconds));
    }
    if (!force && !UpdatePolicy::shouldCheck(last, now, recording)) {
        co_return;
    }
    std::optional<std::string> latest, minimum;
    const auto server = state_.server;
    if (auto manifest = manifestURL(server)) {
        try {
            auto reply = co_await env_.http->send(fetch(*manifest));
            if (reply.status == 200) {
                latest = UpdatePolicy::latestVersion(reply.body);
            }
        } catch (...) {
            log("update manifest not read: " + ErrorText::describe(std::current_exception()));
        }
    }
    try {
        auto endpoint = ServiceRequests::validatedEndpoint(server);
        auto reply = co_await env_.http->send(fetch(ServiceRequests::address(endpoint, "version")));
        auto body = nlohmann::json::parse(reply.body, nullptr, false);
        if (reply.status == 200 && body.is_object()) {
            minimum = textOf(body, "minimumAppVersion");
            // Of the two latest versions, the newer is offered.
            if (auto service = textOf(body, "latestAppVersion");
                service && (!latest || AppVersion(*latest) < AppVersion(*service))) {
                latest = service;
            }
        }
    } catch (...) {
        log("service version not read: " + ErrorText::describe(std::current_exception()));
    }
    env_.defaults->set(
        "lastUpdateCheck",
        static_cast<long long>(
            std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count()));
    auto decision =
        isRelease(env_.appVersion)
            ? UpdatePolicy::decision(env_.appVersion, latest, minimum, lifecycle_.capturing())
            : UpdateDecision::none();
    log("update check: latest " + latest.value_or("none") + ", minimum " +
        minimum.value_or("none"));
    change([&](StudioState& s) { s.update = decision; });
}

}  // namespace pavix
