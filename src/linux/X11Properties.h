#pragma once

#include <X11/Xlib.h>

#include <optional>
#include <string>
#include <vector>

#include "linux/X11Display.h"

namespace pavix {

// Readers of window properties. Each is one round trip; a window that vanished reads as an
// absent property (callers hold an X11ErrorTrap).
namespace X11Properties {

// 32-bit items (CARDINAL, WINDOW, ATOM) of `property`, whatever its declared type.
std::vector<unsigned long> items(X11Display& display, Window window, const char* property);
std::optional<unsigned long> cardinal(X11Display& display, Window window, const char* property);
// A UTF8_STRING property such as _NET_WM_NAME.
std::optional<std::string> utf8(X11Display& display, Window window, const char* property);
// A text property in any encoding (STRING, COMPOUND_TEXT), as UTF-8.
std::optional<std::string> text(X11Display& display, Window window, Atom property);
// WM_CLASS: the instance and the class name.
std::pair<std::string, std::string> wmClass(X11Display& display, Window window);
bool has(X11Display& display, Window window, const char* property);

// The window carrying WM_STATE at or below `window` (the application's own window inside the
// window manager's frame), searched breadth-first; None when there is none.
Window clientWindow(X11Display& display, Window window);

// The child of the root that contains `window` (the window manager's frame around it, or the
// window itself when it is a top-level).
Window topLevel(X11Display& display, Window window);

}  // namespace X11Properties
}  // namespace pavix
