#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "core/app/UpdateDecision.h"

// Whether an update is offered, required before new recordings, or left until the recording
// ends, and when to look for one.
namespace pavix::UpdatePolicy {

using Clock = std::chrono::system_clock;

constexpr std::chrono::seconds checkInterval{86'400};

// The version under "latest"/"version" of the update manifest: two to four numeric parts.
// Nothing when the data is not such a manifest.
std::optional<std::string> latestVersion(std::string_view manifest);

// In this order: deferred while recording; required when below `minimum` (naming `latest`
// when there is one, else `minimum`); available when below `latest`; none.
UpdateDecision decision(std::string_view current, const std::optional<std::string>& latest,
                        const std::optional<std::string>& minimum, bool recording);

// Never while recording; always when there was no check; otherwise once `checkInterval` has
// passed since the last one.
bool shouldCheck(std::optional<Clock::time_point> lastCheck, Clock::time_point now, bool recording);

}  // namespace pavix::UpdatePolicy
