#pragma once

#include <X11/Xlib.h>

#include "core/control/KeyChord.h"
#include "linux/X11Display.h"

namespace pavix {

// Presses chords through XTest on the keyboard as it is set up, leaving it as it was found:
// a locked Caps Lock or a second layout (XKB group) is undone for the press and put back
// afterwards, and a character the keymap lacks is bound to a spare keycode. That binding stays
// until the keyboard object ends: an application looks the symbol up only when it reads the
// event, some time after the server delivered it, so unbinding straight after the press
// could make it read nothing. Control thread only.
class X11Keyboard {
  public:
    explicit X11Keyboard(X11Display& display) : display_(display) {}
    ~X11Keyboard();
    X11Keyboard(const X11Keyboard&) = delete;
    X11Keyboard& operator=(const X11Keyboard&) = delete;

    // Throws InputError for a key name the keyboard cannot make.
    void press(const KeyChord& chord);
    // One character: a line break is Return, a tab Tab.
    void type(char32_t character);

  private:
    KeySym keysymOf(const KeyChord& chord) const;
    void tap(KeySym keysym, const KeyChord& modifiers);
    KeyCode spareKeycode();
    void key(KeySym keysym, bool down);

    X11Display& display_;
    KeyCode borrowed_ = 0;
};

}  // namespace pavix
