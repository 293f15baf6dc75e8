#include "core/control/OutlineText.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace pavix::OutlineText {
namespace {

// The length in bytes of the UTF-8 character that starts with `lead`; 1 for a byte that
// cannot start one.
std::size_t characterLength(unsigned char lead) {
    if (lead >= 0xF0 && lead <= 0xF4) {
        return 4;
    }
    if (lead >= 0xE0) {
        return lead <= 0xEF ? 3 : 1;
    }
    if (lead >= 0xC2) {
        return 2;
    }
    return 1;
}

bool isToggle(const std::string& role) {
    return role == "checkbox" || role == "radio" || role == "switch";
}

bool showsValue(const std::string& role) {
    return role == "textbox" || role == "searchbox" || role == "combobox" || role == "slider";
}

}  // namespace

// Where the character that starts at `at` ends. A character whose continuation bytes are
// missing counts as its lead byte alone.
static std::size_t next(const std::string& text, std::size_t at) {
    std::size_t length = characterLength(static_cast<unsigned char>(text[at]));
    for (std::size_t i = 1; i < length; ++i) {
        if (at + i >= text.size() || (static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80) {
            return at + 1;
        }
    }
    return at + length;
}

std::string cut(const std::string& text, std::size_t limit) {
    std::size_t at = 0;
    for (std::size_t count = 0; at < text.size() && count < limit; ++count) {
        at = next(text, at);
    }
    return text.substr(0, at);
}

std::size_t length(const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = 0; at < text.size(); at = next(text, at)) {
        ++count;
    }
    return count;
}

std::string quoted(const std::string& text, std::size_t limit) {
    return nlohmann::json(cut(text, limit))
        .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string quotedList(const std::vector<std::string>& texts) {
    return nlohmann::json(texts).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool visible(const CaptureRect& element, const CaptureRect& clip) {
    auto part = element.intersection(clip);
    return part.width >= 2 && part.height >= 2;
}

std::string location(const CaptureRect& element, const CaptureRect& window,
                     const CaptureRect& clip) {
    if (visible(element, clip)) {
        auto part = element.intersection(clip);
        auto x = std::lround(part.x + part.width / 2 - window.x);
        auto y = std::lround(part.y + part.height / 2 - window.y);
        return "visible at (" + std::to_string(x) + "," + std::to_string(y) + ") window points";
    }
    std::string directions;
    auto add = [&](const char* direction) { directions += std::string("-") + direction; };
    if (element.maxY() <= clip.y) {
        add("above");
    }
    if (clip.maxY() <= element.y) {
        add("below");
    }
    if (element.maxX() <= clip.x) {
        add("left");
    }
    if (clip.maxX() <= element.x) {
        add("right");
    }
    if (directions.empty()) {
        add("clipped");
    }
    return "offscreen" + directions + " (scroll to reveal)";
}

std::string name(const ElementFacts& facts, const std::string& rowSummary) {
    using Kind = ElementFacts::Kind;
    for (const std::string* candidate :
         {&facts.title, &facts.description, facts.kind == Kind::row ? &rowSummary : nullptr,
          facts.kind == Kind::staticText && !facts.secure ? &facts.value : nullptr, &facts.help}) {
        if (candidate && !candidate->empty()) {
            return *candidate;
        }
    }
    return {};
}

std::string line(const std::string& ref, const ElementFacts& facts, const std::string& name,
                 const std::string& holder, const std::string& where) {
    const std::string& role = facts.roleWord.value_or("");
    std::string out = "  [" + ref + "] " + role;
    if (!name.empty()) {
        out += " " + quoted(name, 200);
    }
    if (!facts.enabled) {
        out += " disabled";
    }
    if (facts.focused) {
        out += " focused";
    }
    if (facts.selected) {
        out += " selected";
    }
    if (isToggle(role)) {
        out += facts.checked.value_or(false) ? " checked" : " unchecked";
    }
    if (facts.secure) {
        out += " secure";
    } else {
        if (role == "textbox" && facts.focused && !facts.selectedText.empty()) {
            out += " selected text: " + quoted(facts.selectedText, 200);
        }
        if (showsValue(role)) {
            out += " value=" + quoted(facts.value, 120);
        }
    }
    if (role == "combobox" && facts.popup) {
        out += " options=" + quotedList(facts.options);
    }
    if (!holder.empty() && holder != name) {
        out += " in " + quoted(holder, 120);
    }
    return out + " — " + where;
}

std::string label(const std::string& role, const std::string& name) {
    return name.empty() ? role : role + " " + quoted(name, 80);
}

}  // namespace pavix::OutlineText
