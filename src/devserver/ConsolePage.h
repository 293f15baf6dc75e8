#pragma once

#include <string>

namespace pavix::devserver::ConsolePage {

// The console: one self-contained HTML page (CSS and JS inline) with the views "#pair",
// "#session" and "#recordings", talking to the agent API.
const std::string& html();

}  // namespace pavix::devserver::ConsolePage
