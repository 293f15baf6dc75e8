#pragma once

#include "devserver/Reply.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <initializer_list>
#include <optional>
#include <string>

// Helpers shared by the route files: writing a Reply, reading JSON bodies strictly.
namespace pavix::devserver::HttpSupport {

// Writes the reply as "application/json". When the fault switch marked the current request for
// truncation, only the first half of the body is sent and the connection is then closed.
void send(httplib::Response& res, const Reply& reply);
// Marks (or unmarks) the request being handled on this thread for truncation.
void setTruncateCurrent(bool on);

// The request's body as a JSON object. Refuses a Content-Type other than application/json (415),
// a body that is not JSON, or JSON that is not an object (400 "invalid_json").
std::optional<Reply> jsonBody(const httplib::Request& req, nlohmann::json& out);
// Refuses any key outside `allowed` (400 "unexpected_field").
std::optional<Reply> onlyKeys(const nlohmann::json& body,
                              std::initializer_list<const char*> allowed);
bool mediaTypeIs(const httplib::Request& req, const std::string& type);
// The token of "Authorization: Bearer <token>", if well formed.
std::optional<std::string> bearer(const httplib::Request& req);
// The error code used for a status that has no code of its own (httplib's own refusals).
std::string codeForStatus(int status);

}  // namespace pavix::devserver::HttpSupport
