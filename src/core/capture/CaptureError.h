#pragma once

#include <stdexcept>
#include <string>

namespace pavix {

// A failure of the capture stream. Codes reuse the screen-capture stream error numbers so that
// sentences and diagnostic codes are the same on every platform: -3815 the source vanished,
// -3801 capture refused by the user or system, -3802 could not start, -3821 stopped by the
// system, and so on.
class CaptureError : public std::runtime_error {
public:
    CaptureError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
    int code() const { return code_; }

    static constexpr int kUserDeclined = -3801;
    static constexpr int kFailedToStart = -3802;
    static constexpr int kMissingEntitlements = -3803;
    static constexpr int kNoMatchingApplicationContext = -3806;
    static constexpr int kNoWindowList = -3813;
    static constexpr int kNoDisplayList = -3814;
    static constexpr int kNoCaptureSource = -3815;
    static constexpr int kUserStopped = -3817;
    static constexpr int kSystemStoppedStream = -3821;

private:
    int code_;
};

}  // namespace pavix
