#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "core/control/AccessibleElement.h"
#include "core/control/OutlineBuilder.h"

namespace pavix {

// Reads the accessible tree of one application window over AT-SPI into the outline's plain
// elements. Each element costs a few D-Bus round trips, so the reader asks only what the
// outline uses: extents only of showing elements, actions only where they decide the role,
// text only of the roles that show it, and nothing of a password field but its role. Every
// call is bounded by the AT-SPI time-out, so a hung application costs a bounded wait.
//
// libatspi is not thread-safe: one thread owns the reader and makes every call.
class AtspiTreeReader {
  public:
    // The window as the window system knows it.
    struct Window {
        pid_t pid = 0;
        CaptureRect frame;  // screen points
        std::string title;
    };

    // Starts libatspi on this thread; `timeoutMs` bounds each call into an application.
    explicit AtspiTreeReader(int timeoutMs = 1000);

    // Whether the accessibility bus answers and lists applications.
    bool reachable() const;

    // The window's tree cut to the limits of `options`, or nothing when no application of the
    // process shows a window.
    std::optional<AccessibleElement> read(const Window& window,
                                          const OutlineOptions& options) const;
};

}  // namespace pavix
