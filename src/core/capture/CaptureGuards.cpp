#include "core/capture/CaptureGuards.h"

#include <algorithm>

#include "core/app/ServiceAddresses.h"
#include "core/capture/CaptureError.h"

namespace pavix::CaptureGuards {

std::optional<std::string> startBlocked(std::optional<std::int64_t> freeBytes,
                                        const std::string& library) {
    if (!freeBytes) {
        return "Could not check free disk space for " + library + ".";
    }
    if (*freeBytes < minimumStartBytes) {
        return "Not enough free disk space to record safely (need 500 MB in " + library + ").";
    }
    return std::nullopt;
}

std::optional<std::string> recordingBlocked(std::optional<std::int64_t> freeBytes) {
    // Unknown free space never stops a recording that is already running.
    if (freeBytes && *freeBytes < minimumRecordingBytes) {
        return "Disk almost full. Recording stopped and the local capture was saved.";
    }
    return std::nullopt;
}

SourcePresence presence(const std::vector<std::uint32_t>& windowIDs,
                        const std::vector<std::uint32_t>& displayIDs,
                        const std::vector<std::pair<std::uint32_t, bool>>& windows,
                        const std::vector<std::uint32_t>& displays) {
    for (auto display : displayIDs) {
        if (std::find(displays.begin(), displays.end(), display) == displays.end()) {
            return SourcePresence::displayDisconnected;
        }
    }
    for (auto id : windowIDs) {
        auto found = std::find_if(windows.begin(), windows.end(),
                                  [id](const auto& window) { return window.first == id; });
        if (found == windows.end()) {
            return SourcePresence::windowClosed;
        }
        if (!found->second) {
            return SourcePresence::windowHidden;
        }
    }
    return SourcePresence::present;
}

std::optional<std::string> message(SourcePresence presence) {
    switch (presence) {
        case SourcePresence::present:
            return std::nullopt;
        case SourcePresence::windowClosed:
            return "The recorded window closed. Recording stopped; the local capture was saved. "
                   "Choose a source and approve a new recording.";
        case SourcePresence::windowHidden:
            return "The recorded window was minimized or hidden. Recording stopped; the local "
                   "capture was saved. Approve a new recording when it is visible.";
        case SourcePresence::displayDisconnected:
            return "The recorded display was disconnected. Recording stopped; the local capture "
                   "was saved.";
    }
    return std::nullopt;
}

namespace {

std::string withoutScheme(const std::string& address) {
    auto at = address.find("://");
    return at == std::string::npos ? address : address.substr(at + 3);
}

}  // namespace

std::string describe(const std::optional<std::string>& serverCode, int status) {
    if (serverCode) {
        const auto& code = *serverCode;
        if (code == "device_credentials_expired") {
            return "This computer's credential expired or was revoked. Pair again with a new code "
                   "from your agent; local videos are preserved.";
        }
        if (code == "local_browser_disconnected") {
            return "The recording session expired or was ended by your agent. Approve a new "
                   "recording to continue; local videos are preserved.";
        }
        if (code == "recording_in_progress") {
            return "This computer is still recording in another session. Stop it first.";
        }
        if (code == "desktop_capture_consent_required") {
            return "Approve recording and upload in Pavix before sharing.";
        }
        if (code == "pairing_code_invalid") {
            return "That pairing code is invalid or expired. Ask your agent for a new one.";
        }
        if (code == "app_update_required") {
            return "This version of Pavix is too old for the server. Update Pavix from " +
                   withoutScheme(ServiceAddresses::kDownloadPage) +
                   ", then share again. Local videos are preserved.";
        }
        if (code == "desktop_sessions_disabled") {
            return "Computer recording is temporarily disabled on this server. Existing uploads "
                   "still work; try again later.";
        }
    }
    if (status != 0) {
        return "Server refused the request (" + std::to_string(status) +
               "). Try sharing again; your local files are preserved.";
    }
    return "Connection unavailable. Try sharing again; your local files are preserved.";
}

std::string describe(const std::exception& error, const std::string& library) {
    const auto* capture = dynamic_cast<const CaptureError*>(&error);
    if (capture == nullptr) {
        return error.what();
    }
    switch (capture->code()) {
        case CaptureError::kNoCaptureSource:
        case CaptureError::kNoDisplayList:
        case CaptureError::kNoWindowList:
        case CaptureError::kNoMatchingApplicationContext:
            return "The selected source is no longer available. Recording stopped; any saved "
                   "capture remains in " +
                   library + ".";
        case CaptureError::kMissingEntitlements:
        case CaptureError::kUserDeclined:
            return "Screen Recording permission was denied or revoked. Allow Pavix to record the "
                   "screen when the system asks, then approve a new recording.";
        case CaptureError::kFailedToStart:
            return "Recording did not start. Check Screen Recording permission and that the "
                   "source is visible.";
        case CaptureError::kSystemStoppedStream:
        case CaptureError::kUserStopped:
            return "The system stopped the capture. Recording stopped; the local capture was "
                   "saved. Approve a new recording to continue.";
        default:
            return "Capture failed (" + std::to_string(capture->code()) +
                   "). Any saved video remains in " + library + ".";
    }
}

}  // namespace pavix::CaptureGuards
