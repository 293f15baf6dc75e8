#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pavix {

enum class SourcePresence { present, windowClosed, windowHidden, displayDisconnected };

// Whether a start is safe, whether a running recording must stop, and the one sentence the
// user sees for a refusal of the service or a failure of the capture.
namespace CaptureGuards {

inline constexpr std::int64_t minimumStartBytes = 524'288'000;      // 500 MiB
inline constexpr std::int64_t minimumRecordingBytes = 157'286'400;  // 150 MiB

// `library` is the library folder as the user knows it, relative to home ("Videos/Pavix").
std::optional<std::string> startBlocked(std::optional<std::int64_t> freeBytes,
                                        const std::string& library);
std::optional<std::string> recordingBlocked(std::optional<std::int64_t> freeBytes);

// `windows` holds the current (window id, on screen) pairs, `displays` the current displays.
SourcePresence presence(const std::vector<std::uint32_t>& windowIDs,
                        const std::vector<std::uint32_t>& displayIDs,
                        const std::vector<std::pair<std::uint32_t, bool>>& windows,
                        const std::vector<std::uint32_t>& displays);
std::optional<std::string> message(SourcePresence presence);

// The sentence for a refusal of the service.
std::string describe(const std::optional<std::string>& serverCode, int status);

// The sentence for a capture failure; other errors give their own description.
std::string describe(const std::exception& error, const std::string& library);

}  // namespace CaptureGuards
}  // namespace pavix
