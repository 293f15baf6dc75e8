#pragma once

#include <cstdint>
#include <string>

namespace pavix {

// What a capture stream records.
//  - window: one window's own content, even where other windows cover it;
//  - display: one display as it is shown;
//  - applicationRegion: a region of a display composed only from the windows of one
//    application (the recorded window with its menus, dialogs and pop-ups); the region itself
//    travels in the stream configuration.
struct CaptureFilter {
    enum class Kind { window, display, applicationRegion };

    Kind kind = Kind::window;
    std::uint32_t windowID = 0;   // the recorded window (window and applicationRegion)
    std::uint32_t displayID = 0;  // the display (display and applicationRegion)
    std::string appId;            // the application's desktop entry id, "" when unknown

    bool operator==(const CaptureFilter&) const = default;
};

}  // namespace pavix
