#include "core/sizing/WindowSizing.h"

#include <algorithm>
#include <cmath>

namespace pavix::WindowSizing {

std::string reasonText(Reason reason) {
    switch (reason) {
        case Reason::controlOff:
            return "control_off";
        case Reason::display:
            return "display";
        case Reason::notResizable:
            return "not_resizable";
        case Reason::fittedToScreen:
            return "fitted_to_screen";
        case Reason::appLimited:
            return "app_limited";
    }
    return "";
}

nlohmann::json Report::payload() const {
    nlohmann::json out = {
        {"requested", requested}, {"width", width}, {"height", height}, {"resized", resized}};
    if (reason) {
        out["reason"] = reasonText(*reason);
    }
    if (restored) {
        out["restored"] = *restored;
    }
    return out;
}

WindowSize preset(const std::string& name) {
    if (name == "1280x720") {
        return {1280, 720};
    }
    if (name == "1440x900") {
        return {1440, 900};
    }
    return {1920, 1080};
}

WindowSize fit(WindowSize size, WindowSize available) {
    if (!(size.width > 0 && size.height > 0 && available.width > 0 && available.height > 0)) {
        return size;
    }
    const double scale =
        std::min({available.width / size.width, available.height / size.height, 1.0});
    return {std::floor(scale * size.width), std::floor(scale * size.height)};
}

CaptureRect origin(WindowSize size, const CaptureRect& frame, const CaptureRect& visible) {
    const double x =
        std::min(std::max(frame.x, visible.x), std::max(visible.x, visible.maxX() - size.width));
    const double y =
        std::min(std::max(frame.y, visible.y), std::max(visible.y, visible.maxY() - size.height));
    return {std::round(x), std::round(y), size.width, size.height};
}

bool close(WindowSize a, WindowSize b, double tolerance) {
    return std::abs(a.width - b.width) <= tolerance && std::abs(a.height - b.height) <= tolerance;
}

Report report(const std::string& requested, WindowSize preset, WindowSize target, WindowSize before,
              WindowSize after) {
    Report out;
    out.requested = requested;
    out.width = static_cast<int>(std::lround(after.width));
    out.height = static_cast<int>(std::lround(after.height));
    const bool unchanged = close(after, before);
    out.resized = !unchanged;
    if (close(after, target)) {
        if (!close(target, preset)) {
            out.reason = Reason::fittedToScreen;
        }
    } else {
        out.reason = unchanged ? Reason::notResizable : Reason::appLimited;
    }
    return out;
}

std::optional<ScreenFrame> screenOf(const CaptureRect& window,
                                    const std::vector<ScreenFrame>& screens) {
    const ScreenFrame* best = nullptr;
    double bestArea = 0;
    for (const auto& screen : screens) {
        const auto common = window.intersection(screen.frame);
        const double area = common.empty() ? 0 : common.width * common.height;
        if (area > bestArea) {
            bestArea = area;
            best = &screen;
        }
    }
    if (!best || window.intersection(best->visible).empty()) {
        return std::nullopt;
    }
    return *best;
}

}  // namespace pavix::WindowSizing
