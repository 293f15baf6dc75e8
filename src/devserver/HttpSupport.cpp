#include "devserver/HttpSupport.h"

#include <algorithm>
#include <cctype>
#include <memory>

namespace pavix::devserver::HttpSupport {

namespace {
thread_local bool truncateCurrent = false;

std::string lowerTrim(std::string s) {
    auto semi = s.find(';');
    if (semi != std::string::npos)
        s.resize(semi);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
        s.pop_back();
    size_t b = 0;
    while (b < s.size() && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    s = s.substr(b);
    for (auto& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}
}  // namespace

void setTruncateCurrent(bool on) {
    truncateCurrent = on;
}

void send(httplib::Response& res, const Reply& reply) {
    res.status = reply.status;
    std::string body = reply.body.dump();
    if (!truncateCurrent) {
        res.set_content(body, "application/json");
        return;
    }
    truncateCurrent = false;
    auto shared = std::make_shared<std::string>(std::move(body));
    size_t half = shared->size() / 2;
    res.set_content_provider(shared->size(), "application/json",
                             [shared, half](size_t offset, size_t length, httplib::DataSink& sink) {
                                 if (offset >= half)
                                     return false;  // stop: the connection is closed short
                                 size_t n = std::min(length, half - offset);
                                 sink.write(shared->data() + offset, n);
                                 return true;
                             });
}

bool mediaTypeIs(const httplib::Request& req, const std::string& type) {
    return lowerTrim(req.get_header_value("Content-Type")) == type;
}

std::optional<Reply> jsonBody(const httplib::Request& req, nlohmann::json& out) {
    if (!mediaTypeIs(req, "application/json")) {
        return Reply::error(415, "unsupported_media_type",
                            {{"detail", "this call takes Content-Type: application/json"}});
    }
    out = nlohmann::json::parse(req.body, nullptr, false);
    if (out.is_discarded())
        return Reply::invalid("the body is not JSON", "invalid_json");
    if (!out.is_object())
        return Reply::invalid("the body must be a JSON object", "invalid_json");
    return std::nullopt;
}

std::optional<Reply> onlyKeys(const nlohmann::json& body,
                              std::initializer_list<const char*> allowed) {
    for (const auto& item : body.items()) {
        const std::string& key = item.key();
        bool known =
            std::any_of(allowed.begin(), allowed.end(), [&](const char* a) { return key == a; });
        if (!known) {
            return Reply::error(400, "unexpected_field",
                                {{"field", key}, {"detail", "unexpected key \"" + key + "\""}});
        }
    }
    return std::nullopt;
}

std::optional<std::string> bearer(const httplib::Request& req) {
    if (req.get_header_value_count("Authorization") != 1)
        return std::nullopt;
    std::string v = req.get_header_value("Authorization");
    const std::string prefix = "Bearer ";
    if (v.rfind(prefix, 0) != 0 || v.size() == prefix.size())
        return std::nullopt;
    std::string token = v.substr(prefix.size());
    if (token.find(' ') != std::string::npos)
        return std::nullopt;
    return token;
}

std::string codeForStatus(int status) {
    switch (status) {
        case 400:
            return "bad_request";
        case 404:
            return "not_found";
        case 405:
            return "method_not_allowed";
        case 411:
            return "length_required";
        case 413:
            return "payload_too_large";
        case 414:
            return "uri_too_long";
        case 416:
            return "range_not_satisfiable";
        case 500:
            return "internal_error";
        default:
            return "http_" + std::to_string(status);
    }
}

}  // namespace pavix::devserver::HttpSupport
