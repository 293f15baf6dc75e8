#pragma once

#include <QDBusConnection>
#include <optional>
#include <string>

namespace pavix {

class DesktopActions;

// One Pavix per user session. The first windowed launch puts its actions on the session bus
// and owns their name; a later launch hands its setup link, or its wish to see the window, to
// that owner and ends, so that two models never share one library.
namespace SingleInstance {

enum class Outcome {
    first,       // this process owns the name (or runs alone: no bus, or the bus refused)
    handedOver,  // the running Pavix took the launch; this one ends with 0
    failed,      // a Pavix runs but did not answer; `detail` says how
};

struct Result {
    Outcome outcome = Outcome::first;
    std::string detail;  // for `first`, why the name is not owned, when it is not
};

// Whether a windowed Pavix owns the name on `bus` (false without a bus).
bool running(QDBusConnection bus);

// Exports `actions` on `bus` and claims the name, or hands `link` to the owner of the name.
Result claim(QDBusConnection bus, DesktopActions& actions, const std::optional<std::string>& link);

}  // namespace SingleInstance
}  // namespace pavix
