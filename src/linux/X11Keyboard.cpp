#include "linux/X11Keyboard.h"

#include <X11/XKBlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <memory>
#include <vector>

#include "core/control/InputError.h"
#include "core/runtime/Text.h"

namespace pavix {
namespace {

// The keysym of one Unicode character: Latin-1 keysyms equal their code points, the rest are
// the code point with 0x01000000 added (the X convention for Unicode keysyms).
KeySym unicodeKeysym(char32_t c) {
    if ((c >= 0x20 && c <= 0x7E) || (c >= 0xA0 && c <= 0xFF)) {
        return c;
    }
    return 0x01000000 | c;
}

}  // namespace

KeySym X11Keyboard::keysymOf(const KeyChord& chord) const {
    if (chord.key.empty()) {
        throw InputError::unsupported("key");
    }
    // A key is one character or a keysym's name.
    if (auto character = Text::singleCharacter(chord.key)) {
        return unicodeKeysym(*character);
    }
    KeySym keysym = XStringToKeysym(chord.key.c_str());
    if (keysym == NoSymbol) {
        throw InputError::unsupported("key " + chord.key);
    }
    return keysym;
}

// A keycode the keymap leaves empty, for binding a missing keysym for a moment; 0 when none.
KeyCode X11Keyboard::spareKeycode() {
    int low = 0, high = 0, perCode = 0;
    XDisplayKeycodes(display_.get(), &low, &high);
    std::unique_ptr<KeySym, int (*)(void*)> map(
        XGetKeyboardMapping(display_.get(), KeyCode(low), high - low + 1, &perCode), XFree);
    if (!map) {
        return 0;
    }
    for (int code = high; code >= low; --code) {
        bool empty = true;
        for (int i = 0; i < perCode; ++i) {
            empty = empty && map.get()[(code - low) * perCode + i] == NoSymbol;
        }
        if (empty) {
            return KeyCode(code);
        }
    }
    return 0;
}

void X11Keyboard::key(KeySym keysym, bool down) {
    XTestFakeKeyEvent(display_.get(), XKeysymToKeycode(display_.get(), keysym), down, CurrentTime);
}

void X11Keyboard::tap(KeySym keysym, const KeyChord& chord) {
    Display* dpy = display_.get();
    // Undo a locked Caps Lock and a second layout for the press; both come back below.
    XkbStateRec state{};
    XkbGetState(dpy, XkbUseCoreKbd, &state);
    const bool capsLocked = state.locked_mods & LockMask;
    if (capsLocked) {
        XkbLockModifiers(dpy, XkbUseCoreKbd, LockMask, 0);
    }
    if (state.locked_group != 0) {
        XkbLockGroup(dpy, XkbUseCoreKbd, 0);
    }

    KeyCode code = XKeysymToKeycode(dpy, keysym);
    bool shift = chord.shift;
    if (code != 0) {
        // Level 2 of the key is its shifted symbol; a symbol only on a third level (AltGr)
        // is typed through a borrowed key instead.
        if (XkbKeycodeToKeysym(dpy, code, 0, 0) != keysym) {
            if (XkbKeycodeToKeysym(dpy, code, 0, 1) == keysym) {
                shift = true;
            } else {
                code = 0;
            }
        }
    }
    if (code == 0) {
        if (borrowed_ == 0) {
            borrowed_ = spareKeycode();
        }
        if (borrowed_ == 0) {
            throw InputError::unsupported("a key for this character");
        }
        KeySym both[2] = {keysym, keysym};
        XChangeKeyboardMapping(dpy, borrowed_, 2, both, 1);
        XSync(dpy, False);
        code = borrowed_;
    }

    std::vector<KeySym> held;
    if (chord.control)
        held.push_back(XK_Control_L);
    if (chord.alt)
        held.push_back(XK_Alt_L);
    if (chord.super)
        held.push_back(XK_Super_L);
    if (shift)
        held.push_back(XK_Shift_L);
    for (auto modifier : held) {
        key(modifier, true);
    }
    XTestFakeKeyEvent(dpy, code, True, CurrentTime);
    XTestFakeKeyEvent(dpy, code, False, CurrentTime);
    for (auto it = held.rbegin(); it != held.rend(); ++it) {
        key(*it, false);
    }
    XSync(dpy, False);

    if (state.locked_group != 0) {
        XkbLockGroup(dpy, XkbUseCoreKbd, state.locked_group);
    }
    if (capsLocked) {
        XkbLockModifiers(dpy, XkbUseCoreKbd, LockMask, LockMask);
    }
    XSync(dpy, False);
}

X11Keyboard::~X11Keyboard() {
    if (borrowed_ != 0) {
        KeySym none[2] = {NoSymbol, NoSymbol};
        XChangeKeyboardMapping(display_.get(), borrowed_, 2, none, 1);
        XSync(display_.get(), False);
    }
}

void X11Keyboard::press(const KeyChord& chord) {
    tap(keysymOf(chord), chord);
}

void X11Keyboard::type(char32_t character) {
    KeyChord plain;
    if (character == U'\n') {
        tap(XK_Return, plain);
    } else if (character == U'\t') {
        tap(XK_Tab, plain);
    } else {
        tap(unicodeKeysym(character), plain);
    }
}

}  // namespace pavix
