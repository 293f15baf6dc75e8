#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureSource.h"
#include "platform/ShareableContent.h"

namespace pavix::CaptureSources {

// The recordable sources of the current windows and displays: windows at least 320×200 with a
// title, then every display.
std::vector<CaptureSource> list(const ShareableContentSnapshot& content);

// The source to share when the user has not chosen one: the one with the remembered title,
// else the first window, else the first display.
std::optional<CaptureSource> defaultSource(const std::vector<CaptureSource>& sources,
                                           const std::optional<std::string>& lastTitle);

}  // namespace pavix::CaptureSources
