#pragma once

namespace pavix::Permissions {

// Whether the X server of $DISPLAY accepts this process, so that windows can be recorded.
bool screenRecording();
// Whether the accessibility bus is reachable and accessibility is turned on.
bool accessibility();

}  // namespace pavix::Permissions
