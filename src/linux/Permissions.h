#pragma once

namespace pavix::Permissions {

// Whether windows can be recorded: the X server of $DISPLAY accepts this process and offers
// the Composite extension.
bool screenRecording();
// Whether the X server of $DISPLAY accepts this process at all.
bool display();
// Whether the accessibility bus is reachable and accessibility is turned on.
bool accessibility();

}  // namespace pavix::Permissions
