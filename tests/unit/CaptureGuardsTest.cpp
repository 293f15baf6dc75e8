#include "core/capture/CaptureGuards.h"

#include <gtest/gtest.h>

#include <tuple>

#include "core/capture/CaptureError.h"

namespace pavix {
namespace {

TEST(CaptureGuards, StartNeedsFiveHundredMebibytesAndAKnownFreeSpace) {
    EXPECT_EQ(CaptureGuards::startBlocked(524'288'000, "Videos/Pavix"), std::nullopt);
    EXPECT_EQ(CaptureGuards::startBlocked(524'287'999, "Videos/Pavix"),
              "Not enough free disk space to record safely (need 500 MB in Videos/Pavix).");
    EXPECT_EQ(CaptureGuards::startBlocked(std::nullopt, "Videos/Pavix"),
              "Could not check free disk space for Videos/Pavix.");
}

TEST(CaptureGuards, RunningRecordingStopsOnlyBelowOneHundredFiftyMebibytesKnownFree) {
    EXPECT_EQ(CaptureGuards::recordingBlocked(157'286'400), std::nullopt);
    EXPECT_EQ(CaptureGuards::recordingBlocked(157'286'399),
              "Disk almost full. Recording stopped and the local capture was saved.");
    EXPECT_EQ(CaptureGuards::recordingBlocked(std::nullopt), std::nullopt);
}

TEST(CaptureGuards, PresenceChecksDisplaysBeforeWindows) {
    using CaptureGuards::presence;
    // A display source with no windows is present while its display is connected.
    EXPECT_EQ(presence({}, {7}, {}, {7}), SourcePresence::present);
    EXPECT_EQ(presence({}, {7}, {}, {8}), SourcePresence::displayDisconnected);
    // A window whose display vanished reports the display first.
    EXPECT_EQ(presence({5}, {7}, {{5, true}}, {}), SourcePresence::displayDisconnected);
    EXPECT_EQ(presence({5}, {}, {{4, true}}, {1}), SourcePresence::windowClosed);
    EXPECT_EQ(presence({5}, {}, {{5, false}}, {1}), SourcePresence::windowHidden);
    // The first window with the id decides.
    EXPECT_EQ(presence({5}, {}, {{5, true}, {5, false}}, {1}), SourcePresence::present);
    EXPECT_EQ(CaptureGuards::message(SourcePresence::present), std::nullopt);
    EXPECT_NE(CaptureGuards::message(SourcePresence::windowClosed)->find("window closed"),
              std::string::npos);
}

TEST(CaptureGuards, ServerCodesBecomeSentencesAndUnknownCodesFallBackOnStatus) {
    const std::string preserved = "local videos are preserved.";
    const std::vector<std::tuple<std::optional<std::string>, int, std::string>> cases = {
        {"device_credentials_expired", 401,
         "This computer's credential expired or was revoked. Pair again with a new code from "
         "your agent; " +
             preserved},
        {"local_browser_disconnected", 409,
         "The recording session expired or was ended by your agent. Approve a new recording to "
         "continue; " +
             preserved},
        {"recording_in_progress", 409,
         "This computer is still recording in another session. Stop it first."},
        {"desktop_capture_consent_required", 403,
         "Approve recording and upload in Pavix before sharing."},
        {"pairing_code_invalid", 400,
         "That pairing code is invalid or expired. Ask your agent for a new one."},
        {"app_update_required", 426,
         "This version of Pavix is too old for the server. Update Pavix from "
         "pavix.app/download, then share again. Local videos are preserved."},
        {"desktop_sessions_disabled", 503,
         "Computer recording is temporarily disabled on this server. Existing uploads still "
         "work; try again later."},
        // Codes are compared exactly; anything else falls back on the status.
        {"Pairing_Code_Invalid", 0,
         "Connection unavailable. Try sharing again; your local files are preserved."},
        {std::nullopt, 503,
         "Server refused the request (503). Try sharing again; your local files are preserved."},
        {"something_new", 418,
         "Server refused the request (418). Try sharing again; your local files are preserved."},
    };
    for (const auto& [code, status, sentence] : cases) {
        EXPECT_EQ(CaptureGuards::describe(code, status), sentence) << code.value_or("none");
    }
}

TEST(CaptureGuards, CaptureFailuresMapByStreamCode) {
    const std::string gone =
        "The selected source is no longer available. Recording stopped; any saved capture "
        "remains in Videos/Pavix.";
    const std::string permission =
        "Screen Recording permission was denied or revoked. Allow Pavix to record the screen "
        "when the system asks, then approve a new recording.";
    const std::string stopped =
        "The system stopped the capture. Recording stopped; the local capture was saved. "
        "Approve a new recording to continue.";
    const std::vector<std::pair<int, std::string>> cases = {
        {-3815, gone},
        {-3814, gone},
        {-3813, gone},
        {-3806, gone},
        {-3801, permission},
        {-3803, permission},
        {-3802,
         "Recording did not start. Check Screen Recording permission and that the source is "
         "visible."},
        {-3821, stopped},
        {-3817, stopped},
        {-3999, "Capture failed (-3999). Any saved video remains in Videos/Pavix."},
    };
    for (const auto& [code, sentence] : cases) {
        EXPECT_EQ(CaptureGuards::describe(CaptureError(code, "detail"), "Videos/Pavix"), sentence)
            << code;
    }
    EXPECT_EQ(CaptureGuards::describe(std::runtime_error("plain failure"), "Videos/Pavix"),
              "plain failure");
}

}  // namespace
}  // namespace pavix
