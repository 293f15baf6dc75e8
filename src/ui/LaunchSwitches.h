#pragma once

#include <filesystem>
#include <ostream>
#include <string>

#include "core/runtime/Log.h"

namespace pavix::LaunchSwitches {

// --check-permission: "screen-recording-granted=true|false bundle=PATH" on `out`; 0 when
// windows can be recorded, 2 when they cannot (no display, no Composite).
int checkPermission(std::ostream& out, const std::string& executable);

// --list-sources: the counts of recordable windows and displays ("W D") written atomically
// to `file`, or "error DOMAIN CODE DESCRIPTION" when the listing fails, with the same logged.
// Always 0: a failure is reported in the file and the log.
int listSources(Log& log, const std::filesystem::path& file = "/tmp/pavix-list-sources.txt");

// --snapshot PATH: the floating bar as Pavix shows it at launch, as a PNG. 0, or 1 with the
// reason on `err`. Needs a QApplication.
int snapshotBar(const std::string& path, std::ostream& err);

}  // namespace pavix::LaunchSwitches
