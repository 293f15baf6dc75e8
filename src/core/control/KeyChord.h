#pragma once

#include <string>
#include <vector>

namespace pavix {

// One key with the modifiers held while it is pressed.
struct KeyChord {
    bool control = false;
    bool shift = false;
    bool alt = false;
    bool super = false;
    // A key of the keyboard by its keysym name ("Return", "Tab", "F5", "Page_Down") or one
    // character as UTF-8 ("a", "/", "é").
    std::string key;

    bool operator==(const KeyChord&) const = default;
};

namespace KeyChords {

// Reads the agent's key text: one chord or several separated by spaces, each a key name with
// modifiers joined by "+" ("ctrl+shift+t", "Escape", "Down Down Return"). Names are read
// without regard to case. The agent writes shortcuts as on a Mac, so "cmd" and "command" are
// the control key here and "option" is alt; "meta", "super" and "win" are the super key.
// Throws InputError ("unsupported: key …") for a name that is no key.
std::vector<KeyChord> parse(const std::string& text);

// The chord as text, for the log and the timeline ("ctrl+shift+t").
std::string text(const KeyChord& chord);

}  // namespace KeyChords
}  // namespace pavix
