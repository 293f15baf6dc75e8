#include "core/control/KeyChord.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

#include "core/control/InputError.h"
#include "core/runtime/Text.h"

namespace pavix {
namespace {

// The agent's words for keys that are not characters, and their keysym names.
constexpr std::array<std::pair<const char*, const char*>, 27> kNamedKeys = {{
    {"enter", "Return"},
    {"return", "Return"},
    {"tab", "Tab"},
    {"escape", "Escape"},
    {"esc", "Escape"},
    {"backspace", "BackSpace"},
    {"delete", "Delete"},
    {"del", "Delete"},
    {"space", "space"},
    {"up", "Up"},
    {"arrowup", "Up"},
    {"down", "Down"},
    {"arrowdown", "Down"},
    {"left", "Left"},
    {"arrowleft", "Left"},
    {"right", "Right"},
    {"arrowright", "Right"},
    {"home", "Home"},
    {"end", "End"},
    {"pageup", "Page_Up"},
    {"page_up", "Page_Up"},
    {"pagedown", "Page_Down"},
    {"page_down", "Page_Down"},
    {"insert", "Insert"},
    {"plus", "plus"},
    {"minus", "minus"},
    {"menu", "Menu"},
}};

std::string keyName(const std::string& word) {
    const auto name = Text::lowerAscii(word);
    for (const auto& [alias, keysym] : kNamedKeys) {
        if (name == alias) {
            return keysym;
        }
    }
    if (name.size() >= 2 && name.size() <= 3 && name[0] == 'f' &&
        std::all_of(name.begin() + 1, name.end(),
                    [](unsigned char c) { return std::isdigit(c); })) {
        const int number = std::stoi(name.substr(1));
        if (number >= 1 && number <= 24) {
            return "F" + std::to_string(number);
        }
    }
    if (Text::singleCharacter(word)) {
        return word;
    }
    throw InputError::unsupported("key " + word);
}

KeyChord chord(const std::string& word) {
    KeyChord chord;
    std::size_t start = 0;
    while (true) {
        // A "+" that is the last character is the key itself ("ctrl++").
        auto plus = word.find('+', start);
        if (plus == std::string::npos || plus + 1 == word.size()) {
            chord.key = keyName(word.substr(start));
            return chord;
        }
        const auto modifier = Text::lowerAscii(word.substr(start, plus - start));
        if (modifier == "ctrl" || modifier == "control" || modifier == "cmd" ||
            modifier == "command") {
            chord.control = true;
        } else if (modifier == "shift") {
            chord.shift = true;
        } else if (modifier == "alt" || modifier == "option" || modifier == "opt") {
            chord.alt = true;
        } else if (modifier == "meta" || modifier == "super" || modifier == "win") {
            chord.super = true;
        } else {
            throw InputError::unsupported("modifier " + word.substr(start, plus - start));
        }
        start = plus + 1;
    }
}

}  // namespace

std::vector<KeyChord> KeyChords::parse(const std::string& text) {
    std::vector<KeyChord> chords;
    std::istringstream words(text);
    std::string word;
    while (words >> word) {
        chords.push_back(chord(word));
    }
    if (chords.empty()) {
        throw InputError::unsupported("no key given");
    }
    return chords;
}

std::string KeyChords::text(const KeyChord& chord) {
    std::string text;
    for (auto [held, name] : {std::pair{chord.control, "ctrl"}, std::pair{chord.alt, "alt"},
                              std::pair{chord.shift, "shift"}, std::pair{chord.super, "super"}}) {
        if (held) {
            text += std::string(name) + "+";
        }
    }
    return text + chord.key;
}

}  // namespace pavix
