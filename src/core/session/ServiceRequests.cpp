#include "core/session/ServiceRequests.h"

#include "core/session/PavixError.h"
#include "core/session/PavixHTTPError.h"

namespace pavix::ServiceRequests {

Url validatedEndpoint(const std::string& server) {
    auto url = Url::parse(server);
    bool ok = url && url->hasAuthority && !url->host.empty() && !url->hasUserInfo && !url->query &&
              !url->fragment && (url->path.empty() || url->path == "/");
    if (ok) {
        // Exact, case-sensitive comparisons: "HTTPS" and "LOCALHOST" are refused.
        ok = url->scheme == "https" ||
             (url->scheme == "http" && (url->host == "127.0.0.1" || url->host == "localhost"));
    }
    if (!ok) {
        throw PavixError("Use an HTTPS server, or localhost for development.");
    }
    return *url;
}

std::string address(const Url& endpoint, const std::string& path) {
    return endpoint.origin() + "/" + kPrefix + path;
}

HttpRequest build(const Url& endpoint, const std::optional<std::string>& token,
                  const std::string& appVersion, const std::string& path,
                  const nlohmann::json& body, Payload payload, const Timing& timing) {
    HttpRequest request;
    request.method = "POST";
    request.url = address(endpoint, path);
    request.timeout = payload.file ? timing.fileTimeout : timing.pollTimeout;
    bool raw = payload.file || payload.chunk;
    request.headers.emplace_back("Content-Type",
                                 raw ? "application/octet-stream" : "application/json");
    if (payload.offset) {
        request.headers.emplace_back("X-Pavix-Offset", std::to_string(*payload.offset));
    }
    if (token) {
        request.headers.emplace_back("Authorization", "Bearer " + *token);
    }
    request.headers.emplace_back("X-Pavix-App-Version", appVersion);
    if (payload.chunk) {
        request.body = std::move(*payload.chunk);  // pieces are 4 MiB: moved, not copied
    } else if (payload.file) {
        request.bodyFile = payload.file;
    } else {
        request.body = body.dump();
    }
    return request;
}

nlohmann::json read(const HttpResponse& response) {
    if (response.status == 200) {
        auto parsed = nlohmann::json::parse(response.body, nullptr, false);
        if (parsed.is_discarded()) {
            throw InvalidReplyError();
        }
        return parsed.is_object() ? parsed : nlohmann::json::object();
    }
    std::optional<std::string> code;
    auto parsed = nlohmann::json::parse(response.body, nullptr, false);
    if (parsed.is_object()) {
        auto error = parsed.find("error");
        if (error != parsed.end() && error->is_string()) {
            code = error->get<std::string>();
        }
    }
    throw PavixHTTPError(static_cast<int>(response.status), code);
}

std::string requiredVersion(const std::string& body) {
    auto parsed = nlohmann::json::parse(body, nullptr, false);
    if (parsed.is_object()) {
        for (const char* key : {"latestAppVersion", "minimumAppVersion"}) {
            auto found = parsed.find(key);
            if (found != parsed.end() && found->is_string()) {
                return found->get<std::string>();
            }
        }
    }
    return "a newer version";
}

}  // namespace pavix::ServiceRequests
