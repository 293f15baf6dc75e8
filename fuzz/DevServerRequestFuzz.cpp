// What the development service reads from a client's request before any route acts on it: the
// JSON body and its keys, the bearer token, the agent key in its header or cookie, the app
// version header against the configured minimum, and the fault rules the agent API and the
// command line arm. The input is three lines (Content-Type, Authorization, X-Pavix-App-Version)
// followed by the body; the second line is also sent as a Cookie header.

#include <httplib.h>

#include <nlohmann/json.hpp>

#include "FuzzCheck.h"
#include "devserver/AgentKey.h"
#include "devserver/AppVersion.h"
#include "devserver/FaultSwitch.h"
#include "devserver/HttpSupport.h"
#include "devserver/Reply.h"

namespace {

using pavix::devserver::FaultRule;

void checkRule(const FaultRule& rule) {
    PAVIX_FUZZ_CHECK(!rule.path.empty() && rule.path[0] == '/', "a fault without a path");
    PAVIX_FUZZ_CHECK(rule.status >= 100 && rule.status <= 599, "a fault status out of range");
    PAVIX_FUZZ_CHECK(rule.count >= 1 && rule.after >= 0 && rule.stallMs >= 0,
                     "fault counts out of range");
    // The listing shows the rule in the form the agent API takes back.
    std::string why;
    auto listed = rule.toJson();
    listed.erase("id");
    listed.erase("hits");
    const auto again = FaultRule::fromJson(listed, &why);
    PAVIX_FUZZ_CHECK(again.has_value(), "a listed fault the agent API refuses");
    PAVIX_FUZZ_CHECK(again->path == rule.path && again->action == rule.action &&
                         again->count == rule.count && again->after == rule.after &&
                         again->method == rule.method,
                     "a listed fault that reads as another");
    (void)pavix::devserver::FaultSwitch::globMatch(rule.path, "/local-browser/poll");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix::devserver;
    const auto lines = pavix::fuzz::pieces(pavix::fuzz::text(data, size), '\n');
    auto line = [&](std::size_t i) { return i < lines.size() ? lines[i] : std::string(); };

    httplib::Request request;
    request.method = "POST";
    request.path = "/local-browser/pair";
    request.headers.emplace("Content-Type", line(0));
    request.headers.emplace("Authorization", line(1));
    request.headers.emplace("X-Pavix-App-Version", line(2));
    for (std::size_t i = 3; i < lines.size(); ++i) {
        request.body += lines[i];
        if (i + 1 < lines.size()) {
            request.body += '\n';
        }
    }

    request.headers.emplace("Cookie", line(1));

    // The body as the routes read it: a JSON object under the right media type, else refused;
    // of its keys only the route's own.
    nlohmann::json parsed;
    if (!HttpSupport::jsonBody(request, parsed)) {
        PAVIX_FUZZ_CHECK(parsed.is_object(), "a body taken that is not an object");
        if (auto refused = HttpSupport::onlyKeys(parsed, {"code", "deviceName"})) {
            PAVIX_FUZZ_CHECK(refused->status == 400, "an unexpected key not refused with 400");
        } else {
            for (const auto& item : parsed.items()) {
                PAVIX_FUZZ_CHECK(item.key() == "code" || item.key() == "deviceName",
                                 "an unexpected key let through");
            }
        }
    }
    if (auto token = HttpSupport::bearer(request)) {
        // The library hands header values over as C strings: up to the first NUL.
        PAVIX_FUZZ_CHECK(!token->empty() && token->find(' ') == std::string::npos &&
                             line(1).substr(0, line(1).find('\0')) == "Bearer " + *token,
                         "a bearer token that is not the header's");
    }
    const std::string key = "pvx_ak_0123";
    PAVIX_FUZZ_CHECK(AgentKey::same(line(1), line(2)) == (line(1) == line(2)),
                     "keys compared wrongly");
    if (AgentKey::carried(request, key)) {
        PAVIX_FUZZ_CHECK(line(1).find("pavix_agent_key=" + key) != std::string::npos,
                         "an agent key taken that the request does not carry");
    }

    // The JSON body as the routes read it: an object, else refused.
    const auto body = nlohmann::json::parse(request.body, nullptr, false);
    if (body.is_object()) {
        (void)Reply::ok(body).body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        std::string why;
        if (auto rule = FaultRule::fromJson(body, &why)) {
            checkRule(*rule);
        } else {
            PAVIX_FUZZ_CHECK(!why.empty(), "a fault refused without a reason");
        }
    }

    // The version gate: every request carries the header; the minimum is one the service
    // accepted (from its flags or the agent's settings), else its default.
    const auto version = line(2);
    const auto minimum = AppVersion::isValid(line(3)) ? line(3) : std::string("0.0.0");
    const bool current = AppVersion::isCurrent(version, minimum);
    if (AppVersion::isValid(version)) {
        const int order = AppVersion::compare(version, minimum);
        PAVIX_FUZZ_CHECK(order == -AppVersion::compare(minimum, version),
                         "a version order that is not antisymmetric");
        PAVIX_FUZZ_CHECK(current == (order >= 0), "a gate that disagrees with the order");
    }

    std::string why;
    if (auto rule = FaultRule::parse(request.body, &why)) {
        checkRule(*rule);
    }
    return 0;
}
