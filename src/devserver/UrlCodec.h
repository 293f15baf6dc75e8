#pragma once

#include <string>
#include <string_view>

namespace pavix::devserver::UrlCodec {

// Percent-encodes everything but the unreserved characters of RFC 3986.
std::string encode(std::string_view text);
// The setup link the app opens: pavix-mac://pair?server=<encoded server>&code=<encoded code>.
std::string setupLink(std::string_view server, std::string_view code);

}  // namespace pavix::devserver::UrlCodec
