#include "devserver/UrlCodec.h"

#include <cctype>

namespace pavix::devserver::UrlCodec {

std::string encode(std::string_view text) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0x0f];
        }
    }
    return out;
}

std::string setupLink(std::string_view server, std::string_view code) {
    return "pavix-mac://pair?server=" + encode(server) + "&code=" + encode(code);
}

}  // namespace pavix::devserver::UrlCodec
