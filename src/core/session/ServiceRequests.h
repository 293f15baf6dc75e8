#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "core/net/HttpRequest.h"
#include "core/net/Url.h"
#include "core/runtime/Timing.h"

namespace pavix {

// How a service call is addressed, built and read. Pure rules; the sending is Studio's.
namespace ServiceRequests {

inline constexpr const char* kPrefix = "local-browser/";

// The base address if it is an https address, or an http address on this machine, with no
// user, query, fragment or path beyond "/". Throws PavixError otherwise.
Url validatedEndpoint(const std::string& server);

// The raw bytes of an upload: a file, or a chunk in memory, at an offset.
struct Payload {
    std::optional<std::filesystem::path> file;
    std::optional<std::string> chunk;
    std::optional<std::int64_t> offset;
};

// The service address of `path` under the endpoint: base + "/local-browser/" + path.
std::string address(const Url& endpoint, const std::string& path);

HttpRequest build(const Url& endpoint, const std::optional<std::string>& token,
                  const std::string& appVersion, const std::string& path,
                  const nlohmann::json& body, Payload payload, const Timing& timing);

// The reply's JSON object for a 200 (an empty object for any other JSON value). Throws
// InvalidReplyError for a 200 that is not JSON and PavixHTTPError for any other status.
nlohmann::json read(const HttpResponse& response);

// For a 426: the version to require (latest, else minimum, else "a newer version").
std::string requiredVersion(const std::string& body);

}  // namespace ServiceRequests

// A 200 reply whose body is not JSON.
class InvalidReplyError : public std::runtime_error {
  public:
    InvalidReplyError() : std::runtime_error("The server sent a reply that is not valid JSON.") {}
};

}  // namespace pavix
