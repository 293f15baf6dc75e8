#include "core/sizing/WindowResize.h"

#include <cmath>

namespace pavix {
namespace {

WindowSize sizeOf(const CaptureRect& frame) {
    return {frame.width, frame.height};
}

}  // namespace

std::pair<WindowSizing::Report, std::optional<WindowResize>> WindowResize::apply(
    WindowFrames& frames, const std::string& requested, std::uint32_t windowID) {
    const auto preset = WindowSizing::preset(requested);
    const auto before = frames.frame(windowID);
    if (!before) {
        return {WindowSizing::report(requested, preset, preset, {}, {}), std::nullopt};
    }
    // The preset is the size of what is recorded: the frame less what a recording leaves out.
    auto inset = frames.decorations(windowID);
    double aroundX = inset.left + inset.right, aroundY = inset.top + inset.bottom;
    const auto content = [&](const CaptureRect& frame) {
        return WindowSize{frame.width - aroundX, frame.height - aroundY};
    };
    const auto unchanged = [&](WindowSize target) {
        return WindowSizing::report(requested, preset, target, content(*before), content(*before));
    };
    if (!frames.resizable(windowID)) {
        return {unchanged(preset), std::nullopt};
    }
    auto screen = WindowSizing::screenOf(*before, frames.screens());
    if (!screen) {
        return {unchanged(preset), std::nullopt};
    }
    const auto target = WindowSizing::fit(
        preset, {screen->visible.width - aroundX, screen->visible.height - aroundY});
    if (WindowSizing::close(content(*before), target)) {
        return {unchanged(target), std::nullopt};
    }
    const auto wanted = WindowSizing::origin({target.width + aroundX, target.height + aroundY},
                                             *before, screen->visible);
    auto after = frames.setFrame(windowID, wanted).value_or(*before);
    // The window manager may draw other decorations around the changed window (a maximised
    // window gets its borders back): the frame is asked once more for the content's size.
    const auto now = frames.decorations(windowID);
    if (now.left + now.right != aroundX || now.top + now.bottom != aroundY) {
        aroundX = now.left + now.right;
        aroundY = now.top + now.bottom;
        const auto again = WindowSizing::origin({target.width + aroundX, target.height + aroundY},
                                                after, screen->visible);
        after = frames.setFrame(windowID, again).value_or(after);
    }
    return {WindowSizing::report(requested, preset, target, content(*before), content(after)),
            WindowResize{windowID, *before}};
}

bool WindowResize::restore(WindowFrames& frames) const {
    if (!frames.frame(windowID)) {
        return true;
    }
    const auto back = frames.setFrame(windowID, original);
    if (!back) {
        return true;
    }
    return std::abs(back->x - original.x) <= 2 && std::abs(back->y - original.y) <= 2 &&
           WindowSizing::close(sizeOf(*back), sizeOf(original));
}

}  // namespace pavix
