#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"

namespace pavix {

// A width and a height in points.
struct WindowSize {
    double width = 0, height = 0;
    bool operator==(const WindowSize&) const = default;
};

// One screen: its whole frame and the part that windows may use (without panels and docks), in
// top-left-origin points of the virtual screen.
struct ScreenFrame {
    CaptureRect frame;
    CaptureRect visible;
};

// The standard video sizes a shared window can be brought to before it is recorded, and the
// arithmetic of fitting one on a screen.
namespace WindowSizing {

// Why a sizing came out as it did.
enum class Reason {
    controlOff,      // the window is shared but control is off: nothing was touched
    display,         // a display is shared, not a window
    notResizable,    // the window kept its size, which is not the target
    fittedToScreen,  // the preset did not fit the screen: a smaller one of its proportions
    appLimited,      // the window changed size, but the application did not take the target
};

std::string reasonText(Reason reason);

// The outcome of one sizing, for the agent.
struct Report {
    std::string requested;  // the preset's name as asked, even when the default was used
    int width = 0, height = 0;
    bool resized = false;
    std::optional<Reason> reason;
    std::optional<bool> restored;  // set once the window was put back

    bool operator==(const Report&) const = default;

    // {"requested", "width", "height", "resized"}, with "reason" and "restored" when set.
    nlohmann::json payload() const;
};

inline constexpr const char* kDefaultPreset = "1920x1080";

// "1280x720", "1440x900" and "1920x1080"; any other name is the default.
WindowSize preset(const std::string& name);

// `size` shrunk to fit `available` with its proportions kept (floored); never enlarged. Sizes
// that are not all positive come back as they are.
WindowSize fit(WindowSize size, WindowSize available);

// The frame a window of `frame` gets at `size`: it keeps its top-left corner where the size
// fits there, else moves left and up just enough to stay on `visible`, or to `visible`'s corner
// when it is larger. The corner is rounded.
CaptureRect origin(WindowSize size, const CaptureRect& frame, const CaptureRect& visible);

// Whether both sizes are within `tolerance` points of each other in width and height.
bool close(WindowSize a, WindowSize b, double tolerance = 2.0);

// The report of a sizing from the sizes before and after it.
Report report(const std::string& requested, WindowSize preset, WindowSize target, WindowSize before,
              WindowSize after);

// The screen whose frame holds the larger part of `window` (the first on a tie); none when the
// window does not lie on that screen's visible part.
std::optional<ScreenFrame> screenOf(const CaptureRect& window,
                                    const std::vector<ScreenFrame>& screens);

}  // namespace WindowSizing
}  // namespace pavix
