#pragma once

#include <optional>
#include <string>
#include <string_view>

// The app version gate: "X-Pavix-App-Version" against the configured minimum.
namespace pavix::devserver::AppVersion {

// Dotted decimal version ("1", "0.1.0", "2.10.3"): at least one numeric part, no empty part.
bool isValid(std::string_view text);
// Version ordering: missing trailing parts count as zero, so 1.2 == 1.2.0 < 1.2.1.
// Both must be valid.
int compare(std::string_view a, std::string_view b);
// True when `version` may talk to the service: "dev" always may; otherwise it must be valid and
// not below `minimum`.
bool isCurrent(std::string_view version, std::string_view minimum);

}  // namespace pavix::devserver::AppVersion
