// Recording orchestration on the model: the agent's and the user's recordings from start to
// published upload, with fake capture parts and a scripted service on loopback.
#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <future>

#include "core/capture/CaptureError.h"
#include "core/runtime/Uuid.h"
#include "support/LibraryRecords.h"
#include "support/StudioTest.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using Stage = LocalCapture::Stage;
namespace fs = std::filesystem;

const std::vector<Stage> kToUploaded{Stage::recording, Stage::finalizing, Stage::saved,
                                     Stage::uploading, Stage::uploaded};

Timing recordingTiming() {
    auto timing = fastTiming();
    timing.watchInterval = std::chrono::milliseconds(30'000);  // no watchdog rounds in between
    return timing;
}

class Recording : public StudioTest {
  protected:
    explicit Recording(Timing timing = recordingTiming()) : StudioTest(timing) {
        show();
        h.studio().observe([this](const StudioState&) {
            const auto& now = h.studio().current();
            if (now && (stages.empty() || stages.back() != now->stage)) {
                stages.push_back(now->stage);
            }
        });
    }
    void connectAndSelect() {
        h.pairWithCode();
        h.studio().selectSource("window-4242");
    }
    // The user's own recording: paired, not sharing with the agent.
    void pairAndLeaveSelected() {
        connectAndSelect();
        h.await(h.studio().disconnect("Bye."));
        h.server.clear();
    }
    static json withCapture(const std::string& id) { return json::array({{{"captureId", id}}}); }
    // The agent's command is refused, and the log says why.
    void refused(const std::string& method, json args, const std::string& why) {
        EXPECT_EQ(call(method, std::move(args))["error"], "local_browser_action_failed") << method;
        EXPECT_TRUE(h.log.contains(why)) << why;
    }
    const LocalCapture& current() { return *h.studio().current(); }
    bool fileExists() { return fs::exists(h.studio().journal().file(current().id)); }
    // The state's flags that are set, in a fixed order, so that one expectation covers them all.
    std::string flags() {
        auto set = std::string(s().paired ? " paired" : "") + (s().connected ? " connected" : "") +
                   (s().busy ? " busy" : "") + (s().consent ? " consent" : "") +
                   (s().recording ? " recording" : "") + (s().manual ? " manual" : "") +
                   (s().uploading ? " uploading" : "");
        return set.empty() ? set : set.substr(1);
    }

    std::vector<Stage> stages;
};

TEST_F(Recording, AgentRecordingIsJournaledFinishedUploadedAndPublished) {
    connectAndSelect();
    auto id = Uuid::make();
    uploads.expect(id);
    refused("startRecording", withCapture(id), "Approve a new recording in Pavix first.");
    EXPECT_FALSE(h.studio().current());

    h.studio().setConsent(true);
    EXPECT_TRUE(h.log.contains("consent=true blocker=none"));
    // The window and a menu of its application, as the layer track samples them.
    capture.layers.set({{4242, 0, 0, 800, 600, LayerWindow::Kind::window},
                        {4343, 100, 100, 200, 300, LayerWindow::Kind::popup}});
    auto started =
        call("startRecording", json::array({{{"captureId", id}, {"windowSize", "1080p"}}}));
    ASSERT_TRUE(started.contains("value")) << started.dump();
    EXPECT_EQ(started["value"]["captureId"], id);
    EXPECT_EQ(started["meta"]["desktopWindow"],
              json::parse(R"({"requested":"1080p","width":800,"height":600,"resized":false,
                              "reason":"control_off"})"));
    EXPECT_EQ(flags(), "paired connected consent recording");
    EXPECT_EQ(s().recordingSource, "Text Editor — notes.txt");
    auto file = h.studio().journal().file(current().id);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(current().deviceId, "device-1");
    EXPECT_EQ(current().serverOrigin, h.server.base());

    // A moment marked while recording is kept with the recording; no still is taken meanwhile.
    auto moment = call("markDemoMoment", json::array({{{"label", "opened the menu"}}}));
    EXPECT_EQ(moment["value"]["count"], 1);
    EXPECT_EQ(h.studio().moments()[0]["label"], "opened the menu");
    refused("screenshot", json::array(),
            "pavix command screenshot failed: Preview is available after recording stops.");

    EXPECT_EQ(call("stopRecording")["value"], json({{"body", "desktop_upload"},
                                                    {"captureId", id},
                                                    {"contentType", "video/mp4"},
                                                    {"redactionPassed", false}}));
    ASSERT_TRUE(h.runUntil([&] { return published(id) && !s().uploading; }));
    EXPECT_EQ(stages, kToUploaded);
    auto upload = *uploads.upload(id);
    EXPECT_EQ(upload.data, readBytes(file));
    EXPECT_EQ(upload.media["durationMs"], 2500);
    // The layer track travels in the side-car and in the upload's media, the same.
    auto saved = h.studio().journal().load().at(0);
    ASSERT_TRUE(saved.layers.has_value());
    ASSERT_FALSE(saved.layers->samples.empty());
    EXPECT_EQ(saved.layers->samples.front().rects.size(), 2u);
    EXPECT_EQ(upload.media["layers"], saved.layers->payload());
    EXPECT_EQ(upload.media["width"], saved.width);
    EXPECT_EQ(s().status, "Uploaded. Ask your agent to render it, or open your Pavix library.");
    EXPECT_EQ(flags(), "paired connected");  // every recording needs a new approval
    EXPECT_EQ(s().saved, file);
    ASSERT_EQ(s().recent.size(), 1u);
    EXPECT_EQ(s().recent[0].stage, Stage::uploaded);

    // The same capture id again never replaces the local recording.
    h.studio().setConsent(true);
    refused("startRecording", withCapture(id),
            "This capture already exists locally. It will not be overwritten.");
    EXPECT_EQ(readBytes(file), upload.data);
    EXPECT_EQ(call("stopRecording")["value"]["captureId"], "");  // nothing records
}

TEST_F(Recording, AgentRefusalsLeaveNoRecordingBehind) {
    connectAndSelect();
    // Nothing to mark or dispose of while nothing records, and these fake parts make no still
    // pictures; the session goes on.
    refused("screenshot", json::array(), "pavix command screenshot failed: Screenshot unavailable");
    refused("markDemoMoment", json::array(), "No capture is running.");
    refused("dispose", json::array(), "Desktop preview supports capture only.");
    EXPECT_EQ(flags(), "paired connected");

    h.studio().setConsent(true);
    refused("startRecording", withCapture("not-a-uuid"), "pavix command startRecording failed");
    h.volume.set(524'287'999);  // one byte under the start guard
    refused("startRecording", withCapture(Uuid::make()),
            "Not enough free disk space to record safely");
    EXPECT_FALSE(h.studio().current());
    h.volume.set(10'000'000'000);
    EXPECT_EQ(flags(), "paired connected");  // a refused start spends the approval too

    // A stream that cannot start: the record exists, interrupted; the approval is spent.
    capture.streams->startError = CaptureError(CaptureError::kNoWindowList, "gone");
    h.studio().setConsent(true);
    refused("startRecording", withCapture(Uuid::make()), "pavix command startRecording failed");
    ASSERT_TRUE(h.studio().current());
    EXPECT_EQ(current().stage, Stage::interrupted);
    EXPECT_EQ(flags(), "paired connected");
    EXPECT_EQ(s().recent.at(0).stage, Stage::interrupted);
}

// Every way an agent's recording can end before the agent stops it.
struct Ending {
    std::string name;
    std::string status;  // the session's last sentence
    friend void PrintTo(const Ending& ending, std::ostream* out) { *out << ending.name; }
};

class EndedRecording : public Recording, public ::testing::WithParamInterface<Ending> {
  protected:
    EndedRecording() : Recording(timing()) {}
    static Timing timing() {
        auto timing = recordingTiming();
        if (GetParam().name == "AgentLimitReached") {
            timing.agentRecordingLimit = std::chrono::milliseconds(200);
        }
        return timing;
    }
};

// The recording is finished and its video kept, nothing is uploaded without the agent's stop,
// and the session ends at the service with the ending's sentence; the next session works.
TEST_P(EndedRecording, FinishesTheVideoKeepsItAndEndsTheSession) {
    connectAndSelect();
    h.studio().setConsent(true);
    auto id = Uuid::make();
    ASSERT_TRUE(call("startRecording", withCapture(id)).contains("value"));
    const auto& ending = GetParam().name;
    if (ending == "SessionEnded") {
        h.await(h.studio().disconnect("Bye."));
    } else if (ending == "StreamStoppedBySystem") {
        capture.streams->fail(CaptureError(CaptureError::kSystemStoppedStream, "stopped"));
    } else if (ending == "Disposed") {
        EXPECT_EQ(call("dispose")["value"], json({{"disposed", true}, {"captureId", id}}));
    }  // else the agent's limit ends it
    ASSERT_TRUE(h.runUntil([&] { return s().status == GetParam().status; })) << s().status;
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(path("disconnect")) == 1; }));
    EXPECT_EQ(flags(), "paired");
    EXPECT_EQ(current().stage, Stage::saved);
    EXPECT_EQ(current().durationMs, 2500);
    EXPECT_TRUE(fileExists());
    EXPECT_EQ(capture.encoders->finishes, 1);
    EXPECT_FALSE(uploads.upload(id));
    // The ending belonged to that session only: the next one serves more than one command.
    h.pairWithCode();
    EXPECT_TRUE(call("listSources").contains("value"));
    EXPECT_TRUE(call("listSources").contains("value"));
    EXPECT_TRUE(s().connected);
}

INSTANTIATE_TEST_SUITE_P(
    Recording, EndedRecording,
    ::testing::Values(
        Ending{"SessionEnded", "Bye."},
        Ending{"StreamStoppedBySystem",
               "The system stopped the capture. Recording stopped; the local capture was saved. "
               "Approve a new recording to continue."},
        Ending{"Disposed",
               "The recording session expired or was ended by your agent. Approve a new "
               "recording to continue; local videos are preserved."},
        Ending{"AgentLimitReached", "Five-minute limit reached. Local capture saved."}),
    [](const ::testing::TestParamInfo<Ending>& info) { return info.param.name; });

TEST_F(Recording, EndingTheSessionDuringTheUploadPutsTheRecordBackToSaved) {
    connectAndSelect();
    h.studio().setConsent(true);
    auto id = Uuid::make();
    uploads.expect(id);
    auto chunkPath = path("desktop-upload/" + id + "/chunk");
    std::promise<void> release;
    auto released = release.get_future().share();
    h.server.on(chunkPath, [released](const httplib::Request&, httplib::Response& response) {
        released.wait_for(std::chrono::seconds(5));  // a slow service
        response.status = 503;
    });
    ASSERT_TRUE(call("startRecording", withCapture(id)).contains("value"));
    ASSERT_TRUE(call("stopRecording").contains("value"));
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(chunkPath) == 1; }));
    EXPECT_EQ(current().stage, Stage::uploading);

    h.await(h.studio().disconnect("Bye."));
    ASSERT_TRUE(h.runUntil([&] { return !s().uploading; }));
    release.set_value();
    EXPECT_EQ(current().stage, Stage::saved);
    EXPECT_EQ(s().status, "Bye.");
    EXPECT_TRUE(fileExists());
    EXPECT_TRUE(h.studio().canRetry(current()));  // possible now that the session has ended
}

TEST_F(Recording, ShareBlockerNamesTheFirstObstacle) {
    auto& studio = h.studio();
    EXPECT_EQ(studio.shareBlocker(), "Choose a window or display first.");
    studio.selectSource("window-4242");
    EXPECT_EQ(studio.shareBlocker(),
              "Enter the one-time code from your agent or the console, or open the setup link.");
    studio.setCode("ABCD");
    EXPECT_EQ(studio.shareBlocker(), std::nullopt);
    h.pairWithCode();
    EXPECT_EQ(studio.shareBlocker(), std::nullopt);  // connected: nothing blocks
    h.await(studio.disconnect("Bye."));
    studio.setCode("");
    EXPECT_EQ(studio.shareBlocker(), std::nullopt);  // paired
    h.content.set(ShareableContentSnapshot{});
    h.await(studio.refreshSources());
    EXPECT_EQ(studio.shareBlocker(), "Choose a window or display first.");
}

TEST_F(Recording, RecordNowRegistersRecordsAndStopUploadsOnce) {
    pairAndLeaveSelected();
    auto id = Uuid::make();
    uploads.issue(id);
    h.await(h.studio().recordNow());
    ASSERT_EQ(flags(), "paired consent recording manual") << s().status;
    EXPECT_EQ(s().status, "Recording Text Editor — notes.txt. Press Stop when done.");
    EXPECT_TRUE(h.log.contains("recording limit 300000 ms"));
    // The credential is renewed, then the recording registered with a fresh request id. A poll
    // of the ended session may still reach the server after it was cleared: it is not counted.
    auto requests = h.server.requests();
    std::erase_if(requests, [&](const auto& seen) { return seen.path == path("poll"); });
    ASSERT_GE(requests.size(), 2u);
    EXPECT_EQ(requests[0].path, path("device/refresh"));
    EXPECT_EQ(requests[1].path, path("desktop-recording/begin"));
    EXPECT_TRUE(Uuid::isValid(json::parse(requests[1].body)["requestId"].get<std::string>()));

    // Two stops at once: one finalize, one upload.
    bool firstDone = false;
    asio::co_spawn(h.io, h.studio().stopManual(), [&](std::exception_ptr) { firstDone = true; });
    h.await(h.studio().stopManual());
    ASSERT_TRUE(h.runUntil([&] { return firstDone; }));
    EXPECT_EQ(capture.encoders->finishes, 1);
    ASSERT_TRUE(published(id));
    EXPECT_EQ(uploads.upload(id)->begins, 1);
    EXPECT_EQ(stages, kToUploaded);
    EXPECT_EQ(flags(), "paired");

    // While an agent session is shared the user's record button does nothing.
    h.pairWithCode();
    h.await(h.studio().recordNow());
    EXPECT_EQ(flags(), "paired connected");
}

TEST_F(Recording, TheServiceNamesTheUsersLimitWhenItGivesWholeMilliseconds) {
    pairAndLeaveSelected();
    uploads.issue(Uuid::make(), json(1.5));  // not whole milliseconds: the five-minute default
    h.await(h.studio().recordNow());
    EXPECT_TRUE(h.log.contains("recording limit 300000 ms"));
    h.await(h.studio().stopManual());

    auto next = Uuid::make();
    uploads.issue(next, json(150));
    h.await(h.studio().recordNow());
    EXPECT_TRUE(h.log.contains("recording limit 150 ms"));
    ASSERT_TRUE(h.runUntil([&] { return published(next) && !s().manual; }));
    EXPECT_TRUE(h.log.contains("status: Recording limit reached. Saving and uploading."));
}

TEST_F(Recording, AUsersStartOrUploadThatFailsLeavesFlagsClearAndSaysWhy) {
    pairAndLeaveSelected();
    h.server.reply(path("desktop-recording/begin"), 200, R"({"id":"42"})");
    h.await(h.studio().recordNow());
    EXPECT_EQ(s().status, "Invalid capture response");
    EXPECT_FALSE(h.studio().current());
    EXPECT_EQ(flags(), "paired");
    EXPECT_EQ(s().lastErrorCode, "app_rule");

    // A capture that cannot start: the record is interrupted, the file never appears.
    uploads.issue(Uuid::make());
    capture.streams->startError = CaptureError(CaptureError::kNoWindowList, "gone");
    h.await(h.studio().recordNow());
    ASSERT_TRUE(h.studio().current());
    EXPECT_EQ(current().stage, Stage::interrupted);
    EXPECT_EQ(flags(), "paired");
    EXPECT_EQ(s().status,
              "The selected source is no longer available. Recording stopped; any saved capture "
              "remains in Videos/Pavix.");

    // An upload that fails leaves the video saved and says to retry.
    capture.streams->startError.reset();
    auto third = Uuid::make();
    uploads.issue(third);
    h.await(h.studio().recordNow());
    ASSERT_TRUE(s().recording);
    h.server.reply(path("desktop-upload/" + third + "/begin"), 503,
                   R"({"error":"service_unavailable"})");
    h.await(h.studio().stopManual());
    EXPECT_EQ(current().stage, Stage::saved);
    EXPECT_EQ(s().status,
              "Upload did not finish. Local video saved; use Retry upload. Server refused the "
              "request (503). Try sharing again; your local files are preserved.");
    EXPECT_EQ(s().lastErrorCode, "service_unavailable");
    EXPECT_TRUE(h.log.contains("status: Saving…"));
    EXPECT_EQ(flags(), "paired");
    EXPECT_TRUE(fileExists());
}

TEST_F(Recording, AUsersHandOverThatCannotBeginSaysWhyAndKeepsTheVideoSaved) {
    pairAndLeaveSelected();
    h.studio().setDiagnosticsOptIn(true);
    const std::string failed = "Upload did not finish. Local video saved; use Retry upload. ";
    // A video the reader measures as zero long: the duration is stored as absent, and an
    // upload without a duration is never begun.
    capture.media.seconds = 0.0;
    auto first = Uuid::make();
    uploads.issue(first);
    h.await(h.studio().recordNow());
    h.await(h.studio().stopManual());
    EXPECT_EQ(s().status, failed + "Capture duration unavailable. Local video saved.");
    EXPECT_EQ(current().stage, Stage::saved);
    EXPECT_EQ(current().durationMs, std::nullopt);
    EXPECT_FALSE(h.studio().journal().load()[0].toJson().contains("durationMs"));
    EXPECT_EQ(h.server.count(path("desktop-upload/" + first + "/begin")), 0u);
    EXPECT_EQ(s().lastErrorCode, "app_rule");
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(path("diagnostics")) == 1; }));
    EXPECT_EQ(json::parse(h.server.requests(path("diagnostics"))[0].body)["event"],
              "manual_stop_failed");

    // The pairing is dropped while recording (another server typed in): nothing to upload as.
    capture.media.seconds = 2.5;
    uploads.issue(Uuid::make());
    h.await(h.studio().recordNow());
    h.studio().setServer("https://agent.example.org");
    h.await(h.studio().stopManual());
    EXPECT_EQ(s().status, failed + "Capture identity unavailable");
    EXPECT_EQ(current().stage, Stage::saved);
    EXPECT_EQ(current().durationMs, 2500);
    EXPECT_EQ(flags(), "");
}

TEST_F(Recording, WhileAUsersRecordingRunsNothingElseOfTheLibraryOrTheSessionMayStart) {
    pairAndLeaveSelected();
    uploads.issue(Uuid::make());
    h.await(h.studio().recordNow());
    h.await(h.studio().stopManual());
    ASSERT_EQ(current().stage, Stage::uploaded);
    auto done = current();

    auto id = Uuid::make();
    uploads.issue(id);
    h.await(h.studio().recordNow());
    ASSERT_TRUE(s().recording);
    auto recording = *std::find_if(s().recent.begin(), s().recent.end(),
                                   [&](const auto& r) { return r.id == current().id; });
    EXPECT_EQ(recording.stage, Stage::recording);
    // Neither the running record nor any other may be retried or deleted while it runs.
    EXPECT_FALSE(h.studio().canManageLocal(recording));
    EXPECT_FALSE(h.studio().canRetry(done));
    EXPECT_EQ(h.studio().shareBlocker(), "Stop the current recording first.");
    h.studio().applySetupLink("pavix-mac://pair?server=" + h.server.base() + "&code=X");
    EXPECT_EQ(s().status, "Finish or stop the current recording before using a setup link.");

    // Its stop is busy until the upload ends; a second stop starts nothing.
    h.studio().setCode("");
    h.await(h.studio().stopManual());
    EXPECT_EQ(current().stage, Stage::uploaded);
    EXPECT_EQ(h.server.count(path("desktop-upload/" + id + "/publish")), 1u);
    EXPECT_TRUE(h.studio().canManageLocal(done));
    EXPECT_FALSE(h.studio().canManageLocal(current()));
}

}  // namespace
}  // namespace pavix::test
