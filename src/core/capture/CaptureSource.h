#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pavix {

// What a capture stream records: one window, one display, or the region of a display composed
// from one application's windows.
struct CaptureFilter {
    enum class Kind { window, display, applicationRegion };
    Kind kind = Kind::window;
    std::uint32_t windowID = 0;
    std::uint32_t displayID = 0;
    std::string appId;
};

// One recordable window or display.
struct CaptureSource {
    std::string id;  // "window-<id>" or "display-<id>"
    std::string title;
    CaptureFilter filter;
    std::int64_t width = 0;  // points
    std::int64_t height = 0;
    std::vector<std::uint32_t> windowIDs;
    std::vector<std::uint32_t> displayIDs;

    bool isDisplay() const { return id.rfind("display-", 0) == 0; }
};

}  // namespace pavix
