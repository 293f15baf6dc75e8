#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace pavix::devserver {

// What a route answers: a status and a JSON object. Every answer that is not a success carries
// "error" with a snake-case code.
struct Reply {
    int status = 200;
    nlohmann::json body = nlohmann::json::object();

    static Reply ok(nlohmann::json body = nlohmann::json::object()) {
        return {200, std::move(body)};
    }
    static Reply error(int status, const std::string& code,
                       nlohmann::json extra = nlohmann::json::object()) {
        extra["error"] = code;
        return {status, std::move(extra)};
    }
    // A 400 for a body that is JSON but not the expected shape; `detail` says what was wrong.
    static Reply invalid(const std::string& detail, const std::string& code = "invalid_request") {
        return error(400, code, {{"detail", detail}});
    }
    bool isOk() const { return status == 200; }
};

}  // namespace pavix::devserver
