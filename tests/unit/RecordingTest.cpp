// Recording orchestration on the model: the agent's and the user's recordings from start to
// published upload, with fake capture parts and a scripted service on loopback.
#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <atomic>
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

Timing recordingTiming() {
    auto timing = fastTiming();
    timing.watchInterval = std::chrono::milliseconds(30'000);  // no watchdog rounds in between
    return timing;
}

class Recording : public StudioTest {
  protected:
    Recording() : Recording(recordingTiming()) {}
    explicit Recording(Timing timing) : StudioTest(timing) {
        show();
        h.studio().observe([this](const StudioState&) {
            const auto& current = h.studio().current();
            if (current && (stages.empty() || stages.back() != current->stage)) {
                stages.push_back(current->stage);
            }
        });
    }
    void connectAndSelect() {
        h.pairWithCode();
        h.studio().selectSource("window-4242");
    }
    static json withCapture(const std::string& id) { return json::array({{{"captureId", id}}}); }
    // The state's flags that are set, in a fixed order, so that one expectation covers them all.
    std::string flags() {
        const auto& s = h.studio().state();
        auto set = std::string(s.paired ? " paired" : "") + (s.connected ? " connected" : "") +
                   (s.busy ? " busy" : "") + (s.consent ? " consent" : "") +
                   (s.recording ? " recording" : "") + (s.manual ? " manual" : "") +
                   (s.uploading ? " uploading" : "");
        return set.empty() ? set : set.substr(1);
    }

    std::vector<Stage> stages;
};

TEST_F(Recording, AgentRecordingIsJournaledFinishedUploadedAndPublished) {
    connectAndSelect();
    auto id = Uuid::make();
    uploads.expect(id);

    // Without the user's approval nothing is recorded.
    EXPECT_EQ(call("startRecording", withCapture(id))["error"], "local_browser_action_failed");
    EXPECT_TRUE(h.log.contains("Approve a new recording in Pavix first."));
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
    EXPECT_EQ(h.studio().state().recordingSource, "Text Editor — notes.txt");
    auto file = h.studio().journal().file(h.studio().current()->id);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(h.studio().current()->deviceId, "device-1");
    EXPECT_EQ(h.studio().current()->serverOrigin, h.server.base());

    // A moment marked while recording is kept with the recording; no still is taken meanwhile.
    auto moment = call("markDemoMoment", json::array({{{"label", "opened the menu"}}}));
    EXPECT_EQ(moment["value"]["count"], 1);
    EXPECT_EQ(h.studio().moments()[0]["label"], "opened the menu");
    EXPECT_EQ(call("screenshot")["error"], "local_browser_action_failed");
    EXPECT_TRUE(h.log.contains(
        "pavix command screenshot failed: Preview is available after recording stops."));

    auto stopped = call("stopRecording");
    EXPECT_EQ(stopped["value"], json({{"body", "desktop_upload"},
                                      {"captureId", id},
                                      {"contentType", "video/mp4"},
                                      {"redactionPassed", false}}));
    ASSERT_TRUE(h.runUntil([&] { return uploads.upload(id) && uploads.upload(id)->published; }));
    ASSERT_TRUE(h.runUntil([&] { return !h.studio().state().uploading; }));

    EXPECT_EQ(stages, (std::vector<Stage>{Stage::recording, Stage::finalizing, Stage::saved,
                                          Stage::uploading, Stage::uploaded}));
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
    EXPECT_EQ(h.studio().state().status,
              "Uploaded. Ask your agent to render it, or open your Pavix library.");
    EXPECT_EQ(flags(), "paired connected");  // every recording needs a new approval
    EXPECT_EQ(h.studio().state().saved, file);
    ASSERT_EQ(h.studio().state().recent.size(), 1u);
    EXPECT_EQ(h.studio().state().recent[0].stage, Stage::uploaded);

    // The same capture id again never replaces the local recording.
    h.studio().setConsent(true);
    EXPECT_EQ(call("startRecording", withCapture(id))["error"], "local_browser_action_failed");
    EXPECT_TRUE(h.log.contains("This capture already exists locally. It will not be overwritten."));
    EXPECT_EQ(readBytes(file), upload.data);
    // Stopping when nothing records answers with an empty capture id.
    EXPECT_EQ(call("stopRecording")["value"]["captureId"], "");
}

// With control allowed, the shared window takes the agent's size before the recording starts
// and gets its own back when the recording is finished.
TEST_F(Recording, TheWindowTakesTheAgentsSizeForTheRecordingAndGetsItsOwnBack) {
    connectAndSelect();
    h.studio().setAllowControl(true);
    h.studio().setConsent(true);
    h.windowFrames.set({{{0, 0, 1920, 1080}, {0, 0, 1920, 1080}}},
                       {{4242, {{100, 100, 800, 600}}}});
    auto id = Uuid::make();
    uploads.expect(id);
    auto started =
        call("startRecording", json::array({{{"captureId", id}, {"windowSize", "1280x720"}}}));
    EXPECT_EQ(started["meta"]["desktopWindow"],
              json::parse(R"({"requested":"1280x720","width":1280,"height":720,"resized":true})"))
        << started.dump();
    EXPECT_EQ(h.windowFrames.frame(4242), (CaptureRect{100, 100, 1280, 720}));
    EXPECT_TRUE(h.log.contains("window preset 1280x720: 1280x720 resized=true "));

    auto stopped = call("stopRecording");
    EXPECT_EQ(stopped["meta"]["desktopWindow"]["restored"], true) << stopped.dump();
    EXPECT_EQ(h.windowFrames.frame(4242), (CaptureRect{100, 100, 800, 600}));
    EXPECT_TRUE(h.log.contains("window restored=true"));
    ASSERT_TRUE(h.runUntil([&] { return uploads.upload(id) && uploads.upload(id)->published; }));
}

TEST_F(Recording, AgentRefusalsLeaveNoRecordingBehind) {
    connectAndSelect();
    // Nothing to mark or dispose of while nothing records, and these fake parts make no still
    // pictures; the session goes on.
    EXPECT_EQ(call("screenshot")["error"], "local_browser_action_failed");
    EXPECT_TRUE(h.log.contains("pavix command screenshot failed: Screenshot unavailable"));
    EXPECT_EQ(call("markDemoMoment")["error"], "local_browser_action_failed");
    EXPECT_TRUE(h.log.contains("No capture is running."));
    EXPECT_EQ(call("dispose")["error"], "local_browser_action_failed");
    EXPECT_TRUE(h.log.contains("Desktop preview supports capture only."));
    EXPECT_EQ(flags(), "paired connected");

    h.studio().setConsent(true);
    EXPECT_EQ(call("startRecording", withCapture("not-a-uuid"))["error"],
              "local_browser_action_failed");

    h.volume.set(524'287'999);  // one byte under the start guard
    EXPECT_EQ(call("startRecording", withCapture(Uuid::make()))["error"],
              "local_browser_action_failed");
    EXPECT_TRUE(h.log.contains("Not enough free disk space to record safely"));
    EXPECT_FALSE(h.studio().current());
    h.volume.set(10'000'000'000);
    EXPECT_EQ(flags(), "paired connected");  // a refused start spends the approval too

    // A stream that cannot start: the record exists, interrupted; the approval is spent.
    capture.streams->startError = CaptureError(CaptureError::kNoWindowList, "gone");
    auto id = Uuid::make();
    h.studio().setConsent(true);
    EXPECT_EQ(call("startRecording", withCapture(id))["error"], "local_browser_action_failed");
    ASSERT_TRUE(h.studio().current());
    EXPECT_EQ(h.studio().current()->stage, Stage::interrupted);
    EXPECT_EQ(flags(), "paired connected");
    EXPECT_EQ(h.studio().state().recent.at(0).stage, Stage::interrupted);
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
    ASSERT_TRUE(h.runUntil([&] { return h.studio().state().status == GetParam().status; }))
        << h.studio().state().status;
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(path("disconnect")) == 1; }));
    EXPECT_EQ(flags(), "paired");
    EXPECT_EQ(h.studio().current()->stage, Stage::saved);
    EXPECT_EQ(h.studio().current()->durationMs, 2500);
    EXPECT_TRUE(fs::exists(h.studio().journal().file(h.studio().current()->id)));
    EXPECT_EQ(capture.encoders->finishes, 1);
    EXPECT_FALSE(uploads.upload(id));
    // The ending belonged to that session only: the next one serves more than one command.
    h.pairWithCode();
    EXPECT_TRUE(call("listSources").contains("value"));
    EXPECT_TRUE(call("listSources").contains("value"));
    EXPECT_TRUE(h.studio().state().connected);
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
        response.set_content(R"({"error":"slow"})", "application/json");
    });
    ASSERT_TRUE(call("startRecording", withCapture(id)).contains("value"));
    ASSERT_TRUE(call("stopRecording").contains("value"));
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(chunkPath) == 1; }));
    EXPECT_EQ(h.studio().current()->stage, Stage::uploading);

    h.await(h.studio().disconnect("Bye."));
    ASSERT_TRUE(h.runUntil([&] { return !h.studio().state().uploading; }));
    release.set_value();
    EXPECT_EQ(h.studio().current()->stage, Stage::saved);
    EXPECT_EQ(h.studio().state().status, "Bye.");
    EXPECT_TRUE(fs::exists(h.studio().journal().file(h.studio().current()->id)));
    // A retry is possible now that the session has ended.
    EXPECT_TRUE(h.studio().canRetry(*h.studio().current()));
}

TEST_F(Recording, ShareBlockerNamesTheFirstObstacle) {
    EXPECT_EQ(h.studio().shareBlocker(), "Choose a window or display first.");
    h.studio().selectSource("window-4242");
    EXPECT_EQ(h.studio().shareBlocker(),
              "Enter the one-time code from your agent or the console, or open the setup link.");
    h.studio().setCode("ABCD");
    EXPECT_EQ(h.studio().shareBlocker(), std::nullopt);
    h.pairWithCode();
    EXPECT_EQ(h.studio().shareBlocker(), std::nullopt);  // connected: nothing blocks
    h.await(h.studio().disconnect("Bye."));
    h.studio().setCode("");
    EXPECT_EQ(h.studio().shareBlocker(), std::nullopt);  // paired
    h.content.set(ShareableContentSnapshot{});
    h.await(h.studio().refreshSources());
    EXPECT_EQ(h.studio().shareBlocker(), "Choose a window or display first.");

    // A pairing under way is busy.
    h.content.set(editorDesktop());
    h.await(h.studio().refreshSources());
    h.studio().selectSource("window-4242");
    std::atomic<bool> resuming{false};
    h.server.on(path("device/resume"), [&](const httplib::Request&, httplib::Response& response) {
        resuming = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        response.status = 426;
        response.set_content(R"({"minimumAppVersion":"2.0","latestAppVersion":"2.1"})",
                             "application/json");
    });
    bool paired = false;
    asio::co_spawn(h.io, h.studio().pair(), [&](std::exception_ptr) { paired = true; });
    ASSERT_TRUE(h.runUntil([&] { return resuming.load(); }));
    EXPECT_EQ(h.studio().shareBlocker(), "Working…");
    // The service says this version is too old: nothing more may be shared until it is updated.
    ASSERT_TRUE(h.runUntil([&] { return paired; }));
    EXPECT_EQ(h.studio().state().update, UpdateDecision::required("2.1"));
    EXPECT_EQ(h.studio().shareBlocker(), "Update Pavix to keep recording.");
}

// The user's own recording: paired, not sharing with the agent.
class ManualRecording : public Recording {
  protected:
    void pairAndLeaveSelected() {
        connectAndSelect();
        h.await(h.studio().disconnect("Bye."));
        h.server.clear();
    }
};

TEST_F(ManualRecording, RecordNowRegistersRecordsAndStopUploadsOnce) {
    pairAndLeaveSelected();
    auto id = Uuid::make();
    uploads.issue(id);
    h.await(h.studio().recordNow());
    ASSERT_EQ(flags(), "paired consent recording manual") << h.studio().state().status;
    EXPECT_EQ(h.studio().state().status,
              "Recording Text Editor — notes.txt. Press Stop when done.");
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
    auto upload = uploads.upload(id);
    ASSERT_TRUE(upload && upload->published);
    EXPECT_EQ(upload->begins, 1);
    EXPECT_EQ(stages, (std::vector<Stage>{Stage::recording, Stage::finalizing, Stage::saved,
                                          Stage::uploading, Stage::uploaded}));
    EXPECT_EQ(flags(), "paired");

    // While an agent session is shared the user's record button does nothing.
    h.pairWithCode();
    h.await(h.studio().recordNow());
    EXPECT_EQ(flags(), "paired connected");
}

TEST_F(ManualRecording, TheServiceNamesTheLengthWhenItGivesWholeMilliseconds) {
    pairAndLeaveSelected();
    auto id = Uuid::make();
    uploads.issue(id, json(1.5));  // not whole milliseconds: the five-minute default
    h.await(h.studio().recordNow());
    EXPECT_TRUE(h.log.contains("recording limit 300000 ms"));
    h.await(h.studio().stopManual());

    auto next = Uuid::make();
    uploads.issue(next, json(150));
    h.await(h.studio().recordNow());
    EXPECT_TRUE(h.log.contains("recording limit 150 ms"));
    ASSERT_TRUE(
        h.runUntil([&] { return uploads.upload(next) && uploads.upload(next)->published; }));
    EXPECT_TRUE(h.log.contains("status: Recording limit reached. Saving and uploading."));
    ASSERT_TRUE(h.runUntil([&] { return !h.studio().state().manual; }));
}

TEST_F(ManualRecording, AStartThatFailsLeavesFlagsClearAndSaysWhy) {
    pairAndLeaveSelected();
    h.server.reply(path("desktop-recording/begin"), 200, R"({"id":"42"})");
    h.await(h.studio().recordNow());
    EXPECT_EQ(h.studio().state().status, "Invalid capture response");
    EXPECT_FALSE(h.studio().current());
    EXPECT_EQ(flags(), "paired");
    EXPECT_EQ(h.studio().state().lastErrorCode, "app_rule");

    // A capture that cannot start: the record is interrupted, the file never appears.
    auto id = Uuid::make();
    uploads.issue(id);
    capture.streams->startError = CaptureError(CaptureError::kNoWindowList, "gone");
    h.await(h.studio().recordNow());
    ASSERT_TRUE(h.studio().current());
    EXPECT_EQ(h.studio().current()->stage, Stage::interrupted);
    EXPECT_EQ(flags(), "paired");
    EXPECT_EQ(h.studio().state().status,
              "The selected source is no longer available. Recording stopped; any saved capture "
              "remains in Videos/Pavix.");

    // An upload that fails leaves the video saved and says to retry.
    capture.streams->startError.reset();
    auto third = Uuid::make();
    uploads.issue(third);
    h.await(h.studio().recordNow());
    ASSERT_TRUE(h.studio().state().recording);
    h.server.reply(path("desktop-upload/" + third + "/begin"), 503,
                   R"({"error":"service_unavailable"})");
    h.await(h.studio().stopManual());
    EXPECT_EQ(h.studio().current()->stage, Stage::saved);
    EXPECT_EQ(h.studio().state().status,
              "Upload did not finish. Local video saved; use Retry upload. Server refused the "
              "request (503). Try sharing again; your local files are preserved.");
    EXPECT_EQ(h.studio().state().lastErrorCode, "service_unavailable");
    EXPECT_TRUE(h.log.contains("status: Saving…"));
    EXPECT_EQ(flags(), "paired");
    EXPECT_TRUE(fs::exists(h.studio().journal().file(h.studio().current()->id)));
}

TEST_F(ManualRecording, AHandOverThatCannotBeginSaysWhyAndKeepsTheVideoSaved) {
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
    EXPECT_EQ(h.studio().state().status,
              failed + "Capture duration unavailable. Local video saved.");
    EXPECT_EQ(h.studio().current()->stage, Stage::saved);
    EXPECT_EQ(h.studio().current()->durationMs, std::nullopt);
    EXPECT_FALSE(h.studio().journal().load()[0].toJson().contains("durationMs"));
    EXPECT_EQ(h.server.count(path("desktop-upload/" + first + "/begin")), 0u);
    EXPECT_EQ(h.studio().state().lastErrorCode, "app_rule");
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(path("diagnostics")) == 1; }));
    EXPECT_EQ(json::parse(h.server.requests(path("diagnostics"))[0].body)["event"],
              "manual_stop_failed");

    // The pairing is dropped while recording (another server typed in): nothing to upload as.
    capture.media.seconds = 2.5;
    auto second = Uuid::make();
    uploads.issue(second);
    h.await(h.studio().recordNow());
    h.studio().setServer("https://agent.example.org");
    h.await(h.studio().stopManual());
    EXPECT_EQ(h.studio().state().status, failed + "Capture identity unavailable");
    EXPECT_EQ(h.studio().current()->stage, Stage::saved);
    EXPECT_EQ(h.studio().current()->durationMs, 2500);
    EXPECT_EQ(flags(), "");
}

TEST_F(ManualRecording, WhileItRunsNothingElseOfTheLibraryOrTheSessionMayStart) {
    pairAndLeaveSelected();
    auto earlier = Uuid::make();
    uploads.issue(earlier);
    h.await(h.studio().recordNow());
    h.await(h.studio().stopManual());
    ASSERT_EQ(h.studio().current()->stage, Stage::uploaded);
    auto done = *h.studio().current();
    auto find = [&](const std::string& id) {
        for (const auto& record : h.studio().state().recent) {
            if (record.id == id) {
                return record;
            }
        }
        throw std::runtime_error("no record " + id);
    };

    auto id = Uuid::make();
    uploads.issue(id);
    h.await(h.studio().recordNow());
    ASSERT_TRUE(h.studio().state().recording);
    auto recording = find(h.studio().current()->id);
    EXPECT_EQ(recording.stage, Stage::recording);
    // Neither the running record nor any other may be retried or deleted while it runs.
    EXPECT_FALSE(h.studio().canManageLocal(recording));
    EXPECT_FALSE(h.studio().canRetry(done));
    EXPECT_EQ(h.studio().shareBlocker(), "Stop the current recording first.");
    h.studio().applySetupLink("pavix-mac://pair?server=" + h.server.base() + "&code=X");
    EXPECT_EQ(h.studio().state().status,
              "Finish or stop the current recording before using a setup link.");

    // Its stop is busy until the upload ends; a second stop starts nothing.
    h.studio().setCode("");
    h.await(h.studio().stopManual());
    EXPECT_EQ(h.studio().current()->stage, Stage::uploaded);
    EXPECT_EQ(h.server.count(path("desktop-upload/" + id + "/publish")), 1u);
    EXPECT_TRUE(h.studio().canManageLocal(find(done.id)));
    EXPECT_FALSE(h.studio().canManageLocal(*h.studio().current()));
}

}  // namespace
}  // namespace pavix::test
