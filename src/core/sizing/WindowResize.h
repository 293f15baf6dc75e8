#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "core/sizing/WindowSizing.h"
#include "platform/WindowFrames.h"

namespace pavix {

// The undo record of one window brought to a preset: the window and its frame before.
struct WindowResize {
    std::uint32_t windowID = 0;
    CaptureRect original;

    // Brings the window to the preset named `requested` (the default for an unknown name),
    // fitted to the visible part of the screen that holds most of it. Never throws for a
    // window that cannot be sized: the report says why; the undo record is there when the
    // window was changed.
    static std::pair<WindowSizing::Report, std::optional<WindowResize>> apply(
        WindowFrames& frames, const std::string& requested, std::uint32_t windowID);

    // Puts the window back; true when it is back within 2 points, or gone (there is nothing
    // left to put back).
    bool restore(WindowFrames& frames) const;
};

}  // namespace pavix
