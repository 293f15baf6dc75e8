#include "core/session/StudioSnapshot.h"

#include "core/session/Studio.h"

namespace pavix {

StudioSnapshot StudioSnapshot::of(const Studio& studio) {
    StudioSnapshot snapshot;
    snapshot.state = studio.state();
    snapshot.shareBlocker = studio.shareBlocker();
    snapshot.recordBlocker = studio.recordBlocker();
    for (const auto& record : snapshot.state.recent) {
        snapshot.actions[record.id] = {studio.canRetry(record), studio.canManageLocal(record)};
    }
    snapshot.phase = studio.lifecycle().phase();
    snapshot.recordingSince = studio.recordingSince();
    snapshot.console = studio.consoleURL("");
    return snapshot;
}

RecordActions StudioSnapshot::actionsFor(const std::string& id) const {
    auto found = actions.find(id);
    return found == actions.end() ? RecordActions{} : found->second;
}

}  // namespace pavix
