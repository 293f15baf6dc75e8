#include "core/capture/CaptureSources.h"

#include <cmath>

namespace pavix::CaptureSources {

std::vector<CaptureSource> list(const ShareableContentSnapshot& content) {
    std::vector<CaptureSource> sources;
    for (const auto& window : content.windows) {
        if (window.width < 320 || window.height < 200 || window.title.empty()) {
            continue;
        }
        CaptureSource source;
        source.id = "window-" + std::to_string(window.id);
        source.title = window.appName.value_or("App") + " \u2014 " + window.title;
        source.filter = {CaptureFilter::Kind::window, window.id, 0, window.appId};
        source.width = static_cast<std::int64_t>(std::lround(window.width));
        source.height = static_cast<std::int64_t>(std::lround(window.height));
        source.windowIDs = {window.id};
        sources.push_back(std::move(source));
    }
    for (const auto& display : content.displays) {
        CaptureSource source;
        source.id = "display-" + std::to_string(display.id);
        source.title =
            "Entire display " + std::to_string(display.id) + " (includes other visible apps)";
        source.filter = {CaptureFilter::Kind::display, 0, display.id, {}};
        source.width = static_cast<std::int64_t>(std::lround(display.width));
        source.height = static_cast<std::int64_t>(std::lround(display.height));
        source.displayIDs = {display.id};
        sources.push_back(std::move(source));
    }
    return sources;
}

std::optional<CaptureSource> defaultSource(const std::vector<CaptureSource>& sources,
                                           const std::optional<std::string>& lastTitle) {
    if (lastTitle) {
        for (const auto& source : sources) {
            if (source.title == *lastTitle) {
                return source;
            }
        }
    }
    for (const auto& source : sources) {
        if (!source.isDisplay()) {
            return source;
        }
    }
    if (!sources.empty()) {
        return sources.front();
    }
    return std::nullopt;
}

}  // namespace pavix::CaptureSources
