#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pavix {

// One top-level window as the window system reports it, in stacking order (bottom first).
struct ShareableWindow {
    std::uint32_t id = 0;                // the client window's identifier (an XID on X11)
    std::string title;                   // empty when the window has none
    std::optional<std::string> appName;  // the owning application's display name
    std::string appId;                   // the application's identifier (desktop entry id), or ""
    std::int32_t pid = 0;                // 0 when unknown
    double x = 0, y = 0;                 // frame origin on the virtual screen, in points
    double width = 0, height = 0;        // frame size in points
    bool onScreen = false;               // mapped and not minimised
};

// One display (monitor) of the virtual screen.
struct ShareableDisplay {
    std::uint32_t id = 0;  // the output's identifier (a RandR output XID on X11)
    double x = 0, y = 0;
    double width = 0, height = 0;
};

struct ShareableContentSnapshot {
    std::vector<ShareableWindow> windows;
    std::vector<ShareableDisplay> displays;
};

// Reads the windows and displays that could be recorded. Blocking; run on the worker pool.
// Throws CaptureError when the window system cannot be read.
class ShareableContent {
  public:
    virtual ~ShareableContent() = default;
    virtual ShareableContentSnapshot current() = 0;
};

}  // namespace pavix
