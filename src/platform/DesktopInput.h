#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "core/control/KeyChord.h"

namespace pavix {

// A point on the virtual screen, in points.
struct ScreenPoint {
    double x = 0, y = 0;
    bool operator==(const ScreenPoint&) const = default;
};

enum class ScrollDirection { up, down, left, right };

// Synthetic pointer and keyboard events, as if the user made them. Each call leaves the
// user's state as it found it: the pointer goes back after a click or a scroll, modifiers are
// released and a key borrowed for a character is given back. Blocking; control thread only.
class DesktopInput {
  public:
    virtual ~DesktopInput() = default;

    // The process of the top-most window at `point`, by the stacking order and the windows'
    // shapes; nothing when no window of a known process is there.
    virtual std::optional<pid_t> ownerAt(ScreenPoint point) = 0;
    // Where the user's pointer is.
    virtual ScreenPoint pointer() = 0;
    // Moves the pointer to `point` and leaves it there.
    virtual void moveTo(ScreenPoint point) = 0;
    // `count` clicks of the left button at `point`, with the pauses of a hand; the pointer then
    // goes back to where it was.
    virtual void click(ScreenPoint point, int count) = 0;
    // `steps` notches of the wheel at `point`; the pointer then goes back.
    virtual void scroll(ScreenPoint point, ScrollDirection direction, int steps) = 0;
    // Presses and releases one chord in the window that has the keyboard focus. Throws
    // InputError for a key the keyboard cannot make.
    virtual void press(const KeyChord& chord) = 0;
    // Types one character (a line break is the Return key) into the focused window.
    virtual void type(char32_t character) = 0;
    // The process of the window that has the keyboard focus, if any.
    virtual std::optional<pid_t> focusedOwner() = 0;
    // Raises the window and gives it the keyboard focus, as the window manager would on a
    // click; whether it asked.
    virtual bool activate(std::uint32_t windowID) = 0;
    // The window the window manager keeps active, if any.
    virtual std::optional<std::uint32_t> activeWindow() = 0;
};

}  // namespace pavix
