#include "core/control/DesktopControl.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "core/control/ControlPolicy.h"
#include "core/session/PavixError.h"

namespace pavix {
namespace {

constexpr std::array<const char*, 8> kMethods = {"readPage",  "pageText",           "pointer",
                                                 "formInput", "typeText",           "pressKey",
                                                 "scrollBy",  "redactSensitiveText"};

constexpr const char* kUnreadable = "The shared window cannot be read. Bring it back on screen.";

}  // namespace

bool DesktopControl::serves(const std::string& method) {
    return std::any_of(kMethods.begin(), kMethods.end(),
                       [&](const char* name) { return method == name; });
}

DesktopControl::DesktopControl(AccessibilityReader& reader, ShareableContent& content,
                               std::uint32_t windowID, OutlineOptions options)
    : reader_(reader), content_(content), windowID_(windowID), options_(std::move(options)) {
    if (!reader_.reachable()) {
        throw PavixError("local_method_forbidden: Accessibility permission is off");
    }
    auto window = locate();
    if (ControlPolicy::denied(window.appId, window.appName)) {
        throw PavixError("local_method_forbidden: Pavix does not operate this app");
    }
}

ShareableWindow DesktopControl::locate() const {
    for (auto& window : content_.current().windows) {
        if (window.id == windowID_ && window.onScreen) {
            return window;
        }
    }
    throw PavixError(kUnreadable);
}

const OutlineSnapshot& DesktopControl::read() {
    const auto started = std::chrono::steady_clock::now();
    auto window = locate();
    ControlledWindow target{
        window.pid, {window.x, window.y, window.width, window.height}, window.title};
    auto tree = reader_.read(target, options_);
    if (!tree) {
        throw PavixError(kUnreadable);
    }
    auto options = options_;
    options.title = window.title;
    snapshot_ = OutlineBuilder::build(*tree, target.frame, options);
    snapshot_->milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - started)
                                  .count();
    return *snapshot_;
}

nlohmann::json DesktopControl::handle(const std::string& method, const nlohmann::json&) {
    if (method == "readPage") {
        return read().outline;
    }
    if (method == "pageText") {
        return (snapshot_ ? *snapshot_ : read()).text;
    }
    throw PavixError("Pavix cannot " + method + " in the shared window yet.");
}

}  // namespace pavix
