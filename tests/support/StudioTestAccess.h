#pragma once

#include "core/session/Studio.h"

namespace pavix {

// Puts a Studio in states that recording reaches, so the command loop's rules can be tested
// on their own.
struct StudioTestAccess {
    static void setRecording(Studio& studio, bool recording) {
        studio.change([&](StudioState& s) { s.recording = recording; });
    }
};

}  // namespace pavix
