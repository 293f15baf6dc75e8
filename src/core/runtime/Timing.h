#pragma once

#include <chrono>

namespace pavix {

// The fixed durations of the system. Production uses the defaults; tests pass shorter values
// through one Timing value instead of editing the constants.
struct Timing {
    using ms = std::chrono::milliseconds;

    ms reconnectDelay{2'000};         // wait before a reconnect after a transient failure
    ms watchInterval{3'000};          // free space and source presence during a recording
    ms agentRecordingLimit{300'000};  // recordings the agent starts end after five minutes
    ms userRecordingLimit{300'000};   // the user's own, unless the service names a length
    ms refreshLead{120'000};          // refresh the access token this long before it expires
    ms refreshFloor{5'000};           // but never sooner than this from now
    ms firstFrameTimeout{5'000};      // a starting capture's wait for its first frame
    ms layerInterval{33};             // layer sampling of a recorded window
    ms pollTimeout{30'000};           // request time-out without a file body
    ms fileTimeout{120'000};          // request time-out with a file body
    ms keychainTimeout{10'000};       // a keyring that does not answer (a locked one prompting)
    ms journalTimeout{10'000};        // a library folder on a disk that does not answer
    ms clipboardTimeout{3'000};       // a clipboard that does not take the text
};

}  // namespace pavix
