#include "core/control/InputDriver.h"

#include <cmath>
#include <thread>
#include <utility>

#include "core/control/InputError.h"
#include "core/runtime/Text.h"

namespace pavix {
namespace {

constexpr const char* kNothingThere = "Nothing to click at that point";

ScreenPoint centre(const CaptureRect& frame) {
    return {frame.x + frame.width / 2, frame.y + frame.height / 2};
}

}  // namespace

InputDriver::InputDriver(pid_t pid, std::uint32_t windowID, AccessibleActions& actions,
                         DesktopInput& input, InputPacing pacing)
    : pid_(pid), windowID_(windowID), actions_(actions), input_(input), pacing_(pacing) {}

long long InputDriver::sinceStart() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 started_)
        .count();
}

bool InputDriver::ownsPoint(ScreenPoint point) {
    auto owner = input_.ownerAt(point);
    return owner && *owner == pid_;
}

std::chrono::milliseconds InputDriver::characterDelay() {
    std::uniform_int_distribution<long long> pause(pacing_.characterMin.count(),
                                                   pacing_.characterMax.count());
    return std::chrono::milliseconds(pause(random_));
}

void InputDriver::glide(ScreenPoint to, const std::string& kind) {
    const auto from = cursor_.value_or(to);
    const int samples = std::max(1, pacing_.glideSamples);
    const auto at = sinceStart();
    for (int i = 1; i <= samples; ++i) {
        // Eased in and out, as a hand moves.
        const double t = double(i) / samples;
        const double eased = t * t * (3 - 2 * t);
        telemetry_.push_back({std::round(from.x + (to.x - from.x) * eased),
                              std::round(from.y + (to.y - from.y) * eased), at, kind});
    }
    cursor_ = to;
}

void InputDriver::note(const std::string& action, const std::string& element,
                       const CaptureRect& frame) {
    nlohmann::json entry = {{"atMs", sinceStart()}, {"action", action}};
    if (!element.empty()) {
        entry["element"] = element;
    }
    entry["frame"] = {frame.x, frame.y, frame.width, frame.height};
    timeline_.push_back(std::move(entry));
}

void InputDriver::click(const OutlineTarget& target, const CaptureRect& window, int count) {
    const auto point = centre(target.frame);
    glide(point, count == 2 ? "double_click" : "click");
    const bool inside =
        window.contains(point.x, point.y) && target.frame.width >= 2 && target.frame.height >= 2;
    // A double click and a click in web content go by the pointer where they can: that is
    // what pages listen for.
    const bool pointerFirst = (count == 2 || target.web) && inside && ownsPoint(point);
    if (!target.visual && !pointerFirst && target.handle) {
        const auto& role = target.role;
        if (count == 1 &&
            (role == "row" || role == "option" || role == "listitem" || role == "treeitem")) {
            if (!actions_.select(target.handle)) {
                throw InputError::refused("Could not select " + target.label);
            }
            note("select", target.label, target.frame);
            return;
        }
        if (count == 1 && (role == "textbox" || role == "searchbox")) {
            if (!actions_.focus(target.handle)) {
                throw InputError::refused("Could not focus " + target.label);
            }
            note("focus", target.label, target.frame);
            return;
        }
        // A double click the pointer cannot make is the element's own activation.
        if (actions_.press(target.handle)) {
            note(count == 2 ? "activate" : "click", target.label, target.frame);
            return;
        }
    }
    if (!inside || !(pointerFirst || ownsPoint(point))) {
        throw InputError::refused(kNothingThere);
    }
    input_.click(point, count);
    note(count == 2 ? "double_click" : "click", target.label, target.frame);
}

void InputDriver::clickAt(ScreenPoint point, const CaptureRect& window, int count) {
    glide(point, count == 2 ? "double_click" : "click");
    if (!window.contains(point.x, point.y) || !ownsPoint(point)) {
        throw InputError::refused(kNothingThere);
    }
    input_.click(point, count);
    note(count == 2 ? "double_click" : "click", "", {point.x, point.y, 0, 0});
}

void InputDriver::hover(ScreenPoint point, const CaptureRect& window) {
    glide(point, "hover");
    if (!window.contains(point.x, point.y) || !ownsPoint(point)) {
        throw InputError::refused("Nothing to hover at that point");
    }
    input_.moveTo(point);
    note("hover", "", {point.x, point.y, 0, 0});
}

std::optional<FocusedElement> InputDriver::focusedTextField() {
    // An application that is not in front reports no focus of its own (GTK clears it with
    // the window's active state): the question is asked with the window in front.
    const bool raised = bringForward();
    auto focused = actions_.focused(pid_);
    // The application tells its accessibility bus of the focus after the window manager
    // activates its window.
    for (int poll = 0; raised && !focused && poll < pacing_.activatePolls; ++poll) {
        std::this_thread::sleep_for(pacing_.activatePoll);
        focused = actions_.focused(pid_);
    }
    if (!focused || !(focused->editable || focused->secure)) {
        return std::nullopt;
    }
    return focused;
}

void InputDriver::fill(const OutlineTarget& target, const std::string& text,
                       const CaptureRect& window) {
    if (target.secure) {
        throw InputError::secureField();
    }
    glide(centre(target.frame), "fill");
    if (target.handle && !target.visual) {
        if (auto landed = actions_.replaceText(target.handle, text)) {
            if (*landed != text) {
                throw InputError::refused("The text field kept \"" + *landed +
                                          "\" instead of the text given");
            }
            note("fill", target.label, target.frame);
            return;
        }
    }
    // Not editable through the bus: focus it, select what it holds and type over it.
    click(target, window);
    press("ctrl+a");
    typeKeys(text);
    note("fill", target.label, target.frame);
}

void InputDriver::setChecked(const OutlineTarget& target, bool on, const CaptureRect& window) {
    if (!OutlineRoles::isToggle(target.role)) {
        throw InputError::unsupported(target.role + " is not a toggle");
    }
    if (target.handle && actions_.checked(target.handle) == on) {
        note("toggle", target.label, target.frame);
        return;  // already so
    }
    click(target, window);
    if (target.handle) {
        auto now = actions_.checked(target.handle);
        if (now && *now != on) {
            throw InputError::refused(target.label + " did not change");
        }
    }
    note("toggle", target.label, target.frame);
}

void InputDriver::choose(const OutlineTarget& target, const std::string& option,
                         const CaptureRect&) {
    glide(centre(target.frame), "choose");
    if (!target.handle || target.visual || !actions_.choose(target.handle, option)) {
        throw InputError::notFound("option \"" + option + "\" of " + target.label);
    }
    note("choose", target.label, target.frame);
}

bool InputDriver::bringForward() {
    if (input_.focusedOwner() == pid_) {
        return false;
    }
    if (!previousFront_) {
        previousFront_ = input_.activeWindow();
    }
    input_.activate(windowID_);
    for (int poll = 0; poll < pacing_.activatePolls; ++poll) {
        if (input_.focusedOwner() == pid_) {
            std::this_thread::sleep_for(pacing_.settle);
            return true;
        }
        std::this_thread::sleep_for(pacing_.activatePoll);
    }
    throw InputError::refused("another app came in front while typing");
}

void InputDriver::handFrontBack() {
    auto previous = std::exchange(previousFront_, std::nullopt);
    // The user may have moved on meanwhile: the front is handed back only by whom it was taken.
    if (previous && *previous != windowID_ && input_.focusedOwner() == pid_) {
        input_.activate(*previous);
    }
}

void InputDriver::typeCharacter(char32_t character) {
    bringForward();
    // The focus may have moved to a password field since the last key.
    auto focused = actions_.focused(pid_);
    if (focused && focused->secure) {
        throw InputError::secureField();
    }
    input_.type(character);
}

void InputDriver::typeKeys(const std::string& text) {
    auto chars = Text::characters(text);
    for (std::size_t i = 0; i < chars.size(); ++i) {
        char32_t c = chars[i];
        if (c == U'\r' && i + 1 < chars.size() && chars[i + 1] == U'\n') {
            continue;  // the line feed that follows is the one Return
        }
        typeCharacter(c == U'\r' ? U'\n' : c);
        std::this_thread::sleep_for(characterDelay());
    }
    note("type", "", {});
}

void InputDriver::press(const std::string& keys) {
    const auto chords = KeyChords::parse(keys);
    for (const auto& chord : chords) {
        bringForward();
        const bool writes = !chord.control && !chord.alt && !chord.super &&
                            (Text::singleCharacter(chord.key) || chord.key == "space");
        auto focused = actions_.focused(pid_);
        if (writes && focused && focused->secure) {
            throw InputError::secureField();
        }
        input_.press(chord);
    }
    note("press " + keys, "", {});
}

void InputDriver::scroll(ScreenPoint point, ScrollDirection direction, int amount,
                         const CaptureRect& window) {
    glide(point, "scroll");
    if (!window.contains(point.x, point.y) || !ownsPoint(point)) {
        throw InputError::refused("Nothing to scroll at that point");
    }
    input_.scroll(point, direction, std::clamp(amount, 1, 50));
    note("scroll", "", {point.x, point.y, 0, 0});
}

}  // namespace pavix
