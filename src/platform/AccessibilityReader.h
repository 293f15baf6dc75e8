#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "core/control/AccessibleElement.h"
#include "core/control/OutlineBuilder.h"

namespace pavix {

// A window as the window system knows it, for reading its accessible tree.
struct ControlledWindow {
    pid_t pid = 0;
    CaptureRect frame;  // screen points
    std::string title;
};

// The platform's accessibility: whether it answers, and the accessible tree of one window.
// Its calls block on other processes; all of them are made on one thread, the control
// thread, because the platform's library may not be shared between threads.
class AccessibilityReader {
  public:
    virtual ~AccessibilityReader() = default;
    // Whether the accessibility bus answers and accessibility is on.
    virtual bool reachable() = 0;
    // The window's tree cut to the limits of `options`; nothing when the window's application
    // shows no accessible window.
    virtual std::optional<AccessibleElement> read(const ControlledWindow& window,
                                                  const OutlineOptions& options) = 0;
};

}  // namespace pavix
