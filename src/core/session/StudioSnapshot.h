#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "core/library/RecordingLifecycle.h"
#include "core/session/StudioState.h"

namespace pavix {

class Studio;

// What a record of the library allows right now.
struct RecordActions {
    bool canRetry = false;   // "Retry upload"
    bool canManage = false;  // play, show in the folder, move to the Trash
};

// Everything a view shows, taken on the model executor in one piece so that a view on another
// thread never asks the model anything: the published state and what the model's rules
// derive from it.
struct StudioSnapshot {
    StudioState state;
    std::optional<std::string> shareBlocker;       // why sharing cannot begin; none when it can
    std::optional<std::string> recordBlocker;      // why "Record it yourself" cannot begin
    std::map<std::string, RecordActions> actions;  // by record id
    RecordingLifecycle::Phase phase = RecordingLifecycle::Phase::idle;
    std::optional<std::chrono::steady_clock::time_point> recordingSince;
    std::string console;  // the web console's address for this service

    static StudioSnapshot of(const Studio& studio);
    RecordActions actionsFor(const std::string& id) const;
};

}  // namespace pavix
