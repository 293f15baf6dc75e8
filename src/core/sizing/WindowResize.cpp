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
    const auto unchanged = [&](WindowSize target) {
        return WindowSizing::report(requested, preset, target, sizeOf(*before), sizeOf(*before));
    };
    if (!frames.resizable(windowID)) {
        return {unchanged(preset), std::nullopt};
    }
    auto screen = WindowSizing::screenOf(*before, frames.screens());
    if (!screen) {
        return {unchanged(preset), std::nullopt};
    }
    const auto target = WindowSizing::fit(preset, {screen->visible.width, screen->visible.height});
    if (WindowSizing::close(sizeOf(*before), target)) {
        return {unchanged(target), std::nullopt};
    }
    const auto wanted = WindowSizing::origin(target, *before, screen->visible);
    const auto after = frames.setFrame(windowID, wanted).value_or(*before);
    return {WindowSizing::report(requested, preset, target, sizeOf(*before), sizeOf(after)),
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
