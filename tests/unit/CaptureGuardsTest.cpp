#include "core/capture/CaptureGuards.h"

#include <gtest/gtest.h>

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
    using CaptureGuards::describe;
    EXPECT_EQ(describe(std::string("pairing_code_invalid"), 400),
              "That pairing code is invalid or expired. Ask your agent for a new one.");
    EXPECT_EQ(describe(std::string("device_credentials_expired"), 401),
              "This computer's credential expired or was revoked. Pair again with a new code from "
              "your agent; local videos are preserved.");
    EXPECT_EQ(describe(std::string("app_update_required"), 426),
              "This version of Pavix is too old for the server. Update Pavix from "
              "pavix.app/download, then share again. Local videos are preserved.");
    EXPECT_EQ(describe(std::string("something_new"), 0),
              "Connection unavailable. Try sharing again; your local files are preserved.");
    EXPECT_EQ(describe(std::nullopt, 503),
              "Server refused the request (503). Try sharing again; your local files are "
              "preserved.");
}

TEST(CaptureGuards, CaptureFailuresMapByStreamCode) {
    using CaptureGuards::describe;
    EXPECT_EQ(describe(CaptureError(-3815, "gone"), "Videos/Pavix"),
              "The selected source is no longer available. Recording stopped; any saved capture "
              "remains in Videos/Pavix.");
    EXPECT_EQ(describe(CaptureError(-3821, "stopped"), "Videos/Pavix"),
              "The system stopped the capture. Recording stopped; the local capture was saved. "
              "Approve a new recording to continue.");
    EXPECT_EQ(describe(CaptureError(-3999, "odd"), "Videos/Pavix"),
              "Capture failed (-3999). Any saved video remains in Videos/Pavix.");
    EXPECT_EQ(describe(std::runtime_error("plain failure"), "Videos/Pavix"), "plain failure");
}

}  // namespace
}  // namespace pavix
