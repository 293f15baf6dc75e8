#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "core/control/OutlineSnapshot.h"
#include "platform/AccessibleActions.h"
#include "platform/DesktopInput.h"

namespace pavix {

// One point of the agent's pointer trail, for drawing it over the recording.
struct PointerSample {
    double x = 0, y = 0;  // screen points
    long long atMs = 0;   // since the driver started
    std::string kind;     // the action that moved it: "click", "hover", "scroll", …
};

// The pauses of a hand. The defaults are the system's; tests run with `none()`.
struct InputPacing {
    std::chrono::milliseconds characterMin{85}, characterMax{155};
    std::chrono::milliseconds activatePoll{50};
    int activatePolls = 30;
    std::chrono::milliseconds settle{150};
    int glideSamples = 8;

    static InputPacing none() {
        InputPacing pacing;
        pacing.characterMin = pacing.characterMax = pacing.activatePoll = pacing.settle =
            std::chrono::milliseconds(0);
        return pacing;
    }
};

// Carries out the agent's clicks, typing, keys and scrolling in the shared window of one
// application. It acts through the accessibility bus where the element allows it and falls
// back to synthetic events only where the point really belongs to that application, so that
// nothing lands in a window that covers the shared one. Password fields are never typed into.
//
// Blocking and single-threaded: it belongs to one control session on the control thread.
class InputDriver {
  public:
    InputDriver(pid_t pid, std::uint32_t windowID, AccessibleActions& actions, DesktopInput& input,
                InputPacing pacing = {});

    // Operates a target of the last outline: its own press, selection or focus first, a
    // synthetic click at its centre otherwise. `count` 2 is a double click.
    void click(const OutlineTarget& target, const CaptureRect& window, int count = 1);
    // A synthetic click at a screen point inside the window.
    void clickAt(ScreenPoint point, const CaptureRect& window, int count = 1);
    // Moves the pointer over a point of the window (menus and tool tips open on hover).
    void hover(ScreenPoint point, const CaptureRect& window);
    // Replaces the text of a text field and checks what landed.
    void fill(const OutlineTarget& target, const std::string& text, const CaptureRect& window);
    // Sets a check box, radio button or switch to `on`.
    void setChecked(const OutlineTarget& target, bool on, const CaptureRect& window);
    // Picks the option called `option` of a combo box.
    void choose(const OutlineTarget& target, const std::string& option, const CaptureRect& window);
    // Types `text` into whatever has the keyboard focus in the application, a character at a
    // time with a hand's rhythm.
    void typeKeys(const std::string& text);
    // Presses the keys the agent named ("ctrl+a", "Escape", "Down Down Return").
    void press(const std::string& keys);
    // Turns the wheel `amount` notches at a point of the window.
    void scroll(ScreenPoint point, ScrollDirection direction, int amount,
                const CaptureRect& window);

    // Whether the top-most window at `point` belongs to the operated application.
    bool ownsPoint(ScreenPoint point);
    // The pause after a typed character: uniformly random between the pacing's bounds.
    std::chrono::milliseconds characterDelay();
    // Moves the trail's pointer to `to` in a few samples.
    void glide(ScreenPoint to, const std::string& kind);

    const std::vector<PointerSample>& telemetry() const { return telemetry_; }
    const nlohmann::json& timeline() const { return timeline_; }
    // The focused element of the application, when it is a text field; nothing otherwise. The
    // window is brought forward first, as for typing.
    std::optional<FocusedElement> focusedTextField();

    // Gives the front back to the window that had it before typing brought the operated
    // window forward, while the operated application still has it.
    void handFrontBack();

    // When the driver started: the samples' `atMs` count from here.
    std::chrono::steady_clock::time_point started() const { return started_; }

  private:
    // Brings the window to the front; whether it was elsewhere. Throws when it stays behind.
    bool bringForward();
    void typeCharacter(char32_t character);
    void note(const std::string& action, const std::string& element, const CaptureRect& frame);
    long long sinceStart() const;

    pid_t pid_;
    std::uint32_t windowID_;
    AccessibleActions& actions_;
    DesktopInput& input_;
    InputPacing pacing_;
    std::optional<std::uint32_t> previousFront_;  // active before the window was brought forward
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::vector<PointerSample> telemetry_;
    nlohmann::json timeline_ = nlohmann::json::array();
    std::optional<ScreenPoint> cursor_;
    std::mt19937 random_{std::random_device{}()};
};

}  // namespace pavix
