#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pavix {

// An absolute URL split into its parts as written (no case folding, no normalisation).
struct Url {
    std::string scheme;
    bool hasAuthority = false;
    bool hasUserInfo = false;
    std::string userInfo;
    std::string host;  // without the brackets of an IPv6 literal
    std::optional<std::string> port;
    std::string path;
    std::optional<std::string> query;     // present, possibly empty, when the URL has a "?"
    std::optional<std::string> fragment;  // present when the URL has a "#"

    // Accepts absolute URLs made of printable ASCII with valid percent escapes; anything else
    // (spaces, control characters, stray "%") does not parse.
    static std::optional<Url> parse(std::string_view text);

    // scheme://authority, the authority as written.
    std::string origin() const;
    std::string toString() const;
    // The query's name=value items, percent-decoded ("+" stays "+").
    std::vector<std::pair<std::string, std::string>> queryItems() const;
    std::optional<std::string> queryItem(const std::string& name) const;
};

std::string percentDecode(std::string_view text);
// Escapes everything but unreserved characters, for use inside a query value.
std::string percentEncode(std::string_view text);

}  // namespace pavix
