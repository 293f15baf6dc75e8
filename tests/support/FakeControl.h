#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"
#include "core/control/AccessibleElement.h"
#include "platform/AccessibleActions.h"
#include "platform/DesktopInput.h"

namespace pavix::test {

// A handle of a scripted element: its name.
inline ElementHandle element(const std::string& name) {
    return std::make_shared<const std::string>(name);
}
inline std::string nameOf(const ElementHandle& handle) {
    return handle ? *static_cast<const std::string*>(handle.get()) : "";
}

// What the bus says of an element of `role` named `title`, at `frame` on the screen.
inline ElementFacts facts(const std::string& role, const std::string& title, CaptureRect frame) {
    ElementFacts f;
    f.roleWord = role;
    f.title = title;
    f.frame = frame;
    return f;
}

// An application's elements as the bus would answer for them; every call is noted in `calls`.
class FakeActions : public AccessibleActions {
  public:
    bool press(const ElementHandle& e) override { return note("press", e, pressable); }
    bool focus(const ElementHandle& e) override { return note("focus", e, focusable); }
    bool select(const ElementHandle& e) override { return note("select", e, selectable); }
    std::optional<std::string> replaceText(const ElementHandle& e,
                                           const std::string& text) override {
        std::lock_guard lock(mutex);
        calls.push_back("replace " + nameOf(e) + "=" + text);
        if (editable.count(nameOf(e)) == 0) {
            return std::nullopt;
        }
        return keeps.value_or(text);
    }
    bool choose(const ElementHandle& e, const std::string& option) override {
        std::lock_guard lock(mutex);
        calls.push_back("choose " + nameOf(e) + "=" + option);
        return option == "Green";
    }
    std::optional<bool> checked(const ElementHandle& e) override {
        std::lock_guard lock(mutex);
        return checkedNow.count(nameOf(e)) != 0;
    }
    std::optional<FocusedElement> focused(pid_t) override {
        std::lock_guard lock(mutex);
        if (focusSequence.empty()) {
            return std::nullopt;
        }
        // Each question moves on to the next scripted focus, the last one stays.
        FocusedElement next = focusSequence.front();
        if (focusSequence.size() > 1) {
            focusSequence.erase(focusSequence.begin());
        }
        return next;
    }

    std::mutex mutex;
    std::set<std::string> pressable, focusable, selectable, editable, checkedNow;
    // A toggle's press flips it in `checkedNow` unless it is stuck.
    std::set<std::string> stuck;
    std::optional<std::string> keeps;  // what a text field holds after any replace
    std::vector<FocusedElement> focusSequence;
    std::vector<std::string> calls;

  private:
    bool note(const char* what, const ElementHandle& e, const std::set<std::string>& able) {
        std::lock_guard lock(mutex);
        const auto name = nameOf(e);
        calls.push_back(std::string(what) + " " + name);
        const bool done = able.count(name) != 0;
        if (done && std::string(what) == "press" && stuck.count(name) == 0) {
            if (!checkedNow.erase(name)) {
                checkedNow.insert(name);
            }
        }
        return done;
    }
};

// A screen of windows, top-most first, each owned by a process; what was sent is in `events`.
class FakeDesktopInput : public DesktopInput {
  public:
    struct Area {
        CaptureRect frame;
        pid_t pid;
    };
    std::optional<pid_t> ownerAt(ScreenPoint p) override {
        for (const auto& area : windows) {
            if (area.frame.contains(p.x, p.y)) {
                return area.pid;
            }
        }
        return std::nullopt;
    }
    ScreenPoint pointer() override { return at; }
    void moveTo(ScreenPoint p) override {
        events.push_back("move " + where(p));
        at = p;
    }
    void click(ScreenPoint p, int count) override {
        events.push_back("click " + where(p) + (count == 2 ? " twice" : ""));
    }
    void scroll(ScreenPoint p, ScrollDirection d, int steps) override {
        const char* names[] = {"up", "down", "left", "right"};
        events.push_back(std::string("scroll ") + names[int(d)] + " " + std::to_string(steps) +
                         " " + where(p));
    }
    void press(const KeyChord& chord) override {
        events.push_back("key " + KeyChords::text(chord));
    }
    void type(char32_t c) override {
        events.push_back(c == U'\n' ? std::string("type Return")
                                    : "type " + std::string(1, static_cast<char>(c)));
    }
    std::optional<pid_t> focusedOwner() override { return front; }
    // Activating the window of another process brings it forward; activating the operated
    // one does when `comesForward`.
    bool activate(std::uint32_t id) override {
        ++activations;
        if (auto other = owners.find(id); other != owners.end()) {
            front = other->second, active = id;
        } else if (comesForward) {
            front = owner, active = id;
        }
        return true;
    }
    std::optional<std::uint32_t> activeWindow() override { return active; }

    std::vector<Area> windows;
    ScreenPoint at{5, 5};
    std::optional<pid_t> front;
    pid_t owner = 77;  // the process that activation brings forward
    bool comesForward = true;
    std::optional<std::uint32_t> active;
    std::map<std::uint32_t, pid_t> owners;  // windows of other processes, by number
    int activations = 0;
    std::vector<std::string> events;

  private:
    static std::string where(ScreenPoint p) {
        return std::to_string(int(p.x)) + "," + std::to_string(int(p.y));
    }
};

}  // namespace pavix::test
