#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureSource.h"
#include "platform/ShareableContent.h"

namespace pavix {

// The rules that turn the window system's windows and displays into recordable sources.
namespace CaptureSources {

inline constexpr double minimumWidth = 320;
inline constexpr double minimumHeight = 200;

// The title of this application's window with a test picture to record.
inline constexpr const char* kDemoTitle = "Pavix Capture Demo";

// Windows first (in the snapshot's order), then displays. Windows smaller than 320×200 points,
// windows without a title and windows of the process `ownPid` (this application) but its demo
// window are left out.
std::vector<CaptureSource> list(const ShareableContentSnapshot& content, std::int32_t ownPid);

CaptureSource windowSource(const ShareableWindow& window);
CaptureSource displaySource(const ShareableDisplay& display);

// A window the user chose by clicking it: its title says only that it was selected.
CaptureSource pickedWindowSource(const ShareableWindow& window);

// The source offered first: the one with the last recorded title, else the first window, else
// the first display; nothing when the list is empty.
std::optional<CaptureSource> defaultSource(const std::vector<CaptureSource>& sources,
                                           const std::optional<std::string>& lastTitle);

}  // namespace CaptureSources
}  // namespace pavix
