#pragma once

#include <optional>
#include <string>

namespace pavix {

// The web console's address for one of its views ("pairing", "session", "recordings").
// `configured` is the "consoleURL" user default when set; `server` the service address.
std::string consoleURL(const std::string& view, const std::optional<std::string>& configured,
                       const std::string& server);

}  // namespace pavix
