#include "core/capture/CaptureSources.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace pavix::CaptureSources {
namespace {

bool listable(const ShareableWindow& window) {
    // NaN fails both comparisons; infinities and absurd sizes are not windows anyone records.
    constexpr double largest = std::numeric_limits<std::int32_t>::max();
    return window.width >= minimumWidth && window.height >= minimumHeight &&
           window.width <= largest && window.height <= largest && !window.title.empty();
}

bool isWindow(const CaptureSource& source) {
    return source.id.starts_with("window-");
}

}  // namespace

CaptureSource windowSource(const ShareableWindow& window) {
    CaptureSource source;
    source.id = "window-" + std::to_string(window.id);
    source.title = window.appName.value_or("App") + " \u2014 " +
                   (window.title.empty() ? std::string("Window") : window.title);
    source.filter.kind = CaptureFilter::Kind::window;
    source.filter.windowID = window.id;
    source.filter.appId = window.appId;
    source.width = static_cast<std::int64_t>(window.width);
    source.height = static_cast<std::int64_t>(window.height);
    source.windowIDs = {window.id};
    return source;
}

CaptureSource displaySource(const ShareableDisplay& display) {
    CaptureSource source;
    source.id = "display-" + std::to_string(display.id);
    source.title =
        "Entire display " + std::to_string(display.id) + " (includes other visible apps)";
    source.filter.kind = CaptureFilter::Kind::display;
    source.filter.displayID = display.id;
    source.width = static_cast<std::int64_t>(display.width);
    source.height = static_cast<std::int64_t>(display.height);
    source.displayIDs = {display.id};
    return source;
}

CaptureSource pickedWindowSource(const ShareableWindow& window) {
    CaptureSource source = windowSource(window);
    source.title = "Selected window";
    return source;
}

std::vector<CaptureSource> list(const ShareableContentSnapshot& content, std::int32_t ownPid) {
    std::vector<CaptureSource> sources;
    for (const auto& window : content.windows) {
        // This application's own windows are its controls, not something to record; its
        // demo window is there to be recorded.
        const bool own = ownPid != 0 && window.pid == ownPid && window.title != kDemoTitle;
        if (listable(window) && !own) {
            sources.push_back(windowSource(window));
        }
    }
    for (const auto& display : content.displays) {
        sources.push_back(displaySource(display));
    }
    return sources;
}

std::optional<CaptureSource> defaultSource(const std::vector<CaptureSource>& sources,
                                           const std::optional<std::string>& lastTitle) {
    if (lastTitle) {
        auto same = std::find_if(sources.begin(), sources.end(),
                                 [&](const auto& source) { return source.title == *lastTitle; });
        if (same != sources.end()) {
            return *same;
        }
    }
    auto window = std::find_if(sources.begin(), sources.end(), isWindow);
    if (window != sources.end()) {
        return *window;
    }
    auto display = std::find_if(sources.begin(), sources.end(),
                                [](const auto& source) { return !isWindow(source); });
    if (display != sources.end()) {
        return *display;
    }
    return std::nullopt;
}

}  // namespace pavix::CaptureSources
