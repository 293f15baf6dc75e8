#include "core/net/Url.h"

#include <cctype>

namespace pavix {
namespace {

bool isHex(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    return (std::tolower(static_cast<unsigned char>(c)) - 'a') + 10;
}

// Printable ASCII that may appear in a URL, and only well-formed percent escapes.
bool wellFormed(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c <= 0x20 || c >= 0x7f) {
            return false;
        }
        switch (c) {
            case '<':
            case '>':
            case '"':
            case '{':
            case '}':
            case '|':
            case '\\':
            case '^':
            case '`':
                return false;
            case '%':
                if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])) {
                    return false;
                }
                break;
            default:
                break;
        }
    }
    return true;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    if (text.empty() || !wellFormed(text)) {
        return std::nullopt;
    }
    Url url;
    auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 ||
        !std::isalpha(static_cast<unsigned char>(text[0]))) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < colon; ++i) {
        char c = text[i];
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') {
            return std::nullopt;
        }
    }
    url.scheme = std::string(text.substr(0, colon));
    std::string_view rest = text.substr(colon + 1);

    auto hash = rest.find('#');
    if (hash != std::string_view::npos) {
        url.fragment = std::string(rest.substr(hash + 1));
        rest = rest.substr(0, hash);
    }
    auto question = rest.find('?');
    if (question != std::string_view::npos) {
        url.query = std::string(rest.substr(question + 1));
        rest = rest.substr(0, question);
    }
    if (rest.substr(0, 2) == "//") {
        url.hasAuthority = true;
        rest = rest.substr(2);
        auto slash = rest.find('/');
        std::string_view authority = rest.substr(0, slash);
        url.path = slash == std::string_view::npos ? "" : std::string(rest.substr(slash));
        auto at = authority.rfind('@');
        if (at != std::string_view::npos) {
            url.hasUserInfo = true;
            url.userInfo = std::string(authority.substr(0, at));
            authority = authority.substr(at + 1);
        }
        if (!authority.empty() && authority[0] == '[') {
            auto close = authority.find(']');
            if (close == std::string_view::npos) {
                return std::nullopt;
            }
            url.host = std::string(authority.substr(1, close - 1));
            authority = authority.substr(close + 1);
            if (!authority.empty()) {
                if (authority[0] != ':') {
                    return std::nullopt;
                }
                url.port = std::string(authority.substr(1));
            }
        } else {
            auto portColon = authority.find(':');
            url.host = std::string(authority.substr(0, portColon));
            if (portColon != std::string_view::npos) {
                url.port = std::string(authority.substr(portColon + 1));
            }
        }
        if (url.port) {
            if (url.port->size() > 5) {
                return std::nullopt;
            }
            for (char c : *url.port) {
                if (!std::isdigit(static_cast<unsigned char>(c))) {
                    return std::nullopt;
                }
            }
        }
        if (url.host.find_first_of("[]@") != std::string::npos) {
            return std::nullopt;
        }
    } else {
        url.path = std::string(rest);
    }
    return url;
}

std::string Url::origin() const {
    std::string out = scheme + ":";
    if (hasAuthority) {
        out += "//";
        if (hasUserInfo) {
            out += userInfo + "@";
        }
        out += host.find(':') != std::string::npos ? "[" + host + "]" : host;
        if (port) {
            out += ":" + *port;
        }
    }
    return out;
}

std::string Url::toString() const {
    std::string out = origin() + path;
    if (query) {
        out += "?" + *query;
    }
    if (fragment) {
        out += "#" + *fragment;
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> Url::queryItems() const {
    std::vector<std::pair<std::string, std::string>> items;
    if (!query || query->empty()) {
        return items;
    }
    std::string_view rest = *query;
    while (true) {
        auto amp = rest.find('&');
        std::string_view item = rest.substr(0, amp);
        auto eq = item.find('=');
        if (eq == std::string_view::npos) {
            items.emplace_back(percentDecode(item), "");
        } else {
            items.emplace_back(percentDecode(item.substr(0, eq)),
                               percentDecode(item.substr(eq + 1)));
        }
        if (amp == std::string_view::npos) {
            break;
        }
        rest = rest.substr(amp + 1);
    }
    return items;
}

std::optional<std::string> Url::queryItem(const std::string& name) const {
    for (auto& [key, value] : queryItems()) {
        if (key == name) {
            return value;
        }
    }
    return std::nullopt;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2])) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string percentEncode(std::string_view text) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

}  // namespace pavix
