#pragma once

#include <optional>
#include <string>

namespace pavix {

// Which applications the agent may never operate: terminals, password managers and the
// system's own tools, whatever the user shares.
namespace ControlPolicy {

// Whether the application with desktop id `appId` (or "" when unknown) and display name
// `appName` is one of them. Ids are compared without case and without ".desktop"; a name
// must match one of the known names whole.
bool denied(const std::string& appId, const std::optional<std::string>& appName);

}  // namespace ControlPolicy
}  // namespace pavix
