// The recording lifecycle: its rules step by step (which steps are allowed from where, and the
// flags each state publishes), then interleavings that once went wrong, each pinned down on its
// own.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <future>
#include <map>
#include <sstream>

#include "core/capture/CaptureError.h"
#include "core/library/RecordingLifecycle.h"
#include "core/net/TransportError.h"
#include "core/runtime/Uuid.h"
#include "core/session/PavixError.h"
#include "support/Failure.h"
#include "support/StudioTest.h"
#include "support/StudioTestAccess.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using Stage = LocalCapture::Stage;
using std::chrono::milliseconds;

using Owner = RecordingLifecycle::Owner;

// Applies one named step and returns whether it was allowed.
bool applyStep(RecordingLifecycle& l, const std::string& step) {
    const std::map<std::string, std::function<bool()>> steps{
        {"approve", [&] { return l.approve(true); }},
        {"withdraw", [&] { return l.approve(false); }},
        {"pair", [&] { return l.beginPairing(); }},
        {"paired", [&] { return l.endPairing(), true; }},
        {"start:user", [&] { return l.beginStart(Owner::user); }},
        {"start:agent", [&] { return l.beginStart(Owner::agent); }},
        {"started", [&] { return l.started("REC"); }},
        {"startFailed", [&] { return l.startFailed(); }},
        {"stop", [&] { return l.beginStop(); }},
        {"stopped", [&] { return l.stopped(false); }},
        {"stopped:upload", [&] { return l.stopped(true); }},
        {"retry", [&] { return l.beginRetry("OLD"); }},
        {"uploadEnded", [&] { return l.uploadEnded(); }}};
    auto found = steps.find(step);
    EXPECT_TRUE(found != steps.end()) << "unknown step " << step;
    return found != steps.end() && found->second();
}

// The phase, then the flags that are set, in a fixed order.
std::string flags(const RecordingLifecycle& l) {
    return phaseText(l.phase()) + std::string(l.consent() ? " consent" : "") +
           (l.busy() ? " busy" : "") + (l.recording() ? " recording" : "") +
           (l.manual() ? " manual" : "") + (l.uploading() ? " uploading" : "") +
           (l.holdsSharing() ? " holds" : "");
}

// Each case is a run of steps, each marked allowed (+) or refused (-), then the flags of the
// state reached.
struct Case {
    const char* steps;
    const char* expected;
};

class Lifecycle : public ::testing::TestWithParam<Case> {};

TEST_P(Lifecycle, StepsAndFlags) {
    RecordingLifecycle l;
    std::istringstream steps(GetParam().steps);
    std::string token;
    while (steps >> token) {
        const bool allowed = token.back() == '+';
        auto before = flags(l);
        auto step = token.substr(0, token.size() - 1);
        EXPECT_EQ(applyStep(l, step), allowed) << step << " from " << before;
        if (!allowed) {
            EXPECT_EQ(flags(l), before) << "a refused " << step << " changed the state";
        }
    }
    EXPECT_EQ(flags(l), GetParam().expected) << GetParam().steps;
}

INSTANTIATE_TEST_SUITE_P(
    Recording, Lifecycle,
    ::testing::Values(
        // The agent needs the user's approval; the approval is used up by the recording.
        Case{"start:agent-", "idle"},
        Case{"approve+ start:agent+ started+", "recording consent recording holds"},
        Case{"approve+ start:agent+ started+ stop+ stop-", "stopping consent busy recording holds"},
        // The agent's upload is busy, yet a reconnect may pair beside it.
        Case{"approve+ start:agent+ started+ stop+ stopped:upload+ pair+",
             "uploading busy uploading holds"},
        Case{"approve+ start:agent+ startFailed+", "idle"},
        // The user's start gives the approval; the recording and its hand-over are manual.
        Case{"start:user+", "starting consent busy holds"},
        Case{"start:user+ started+ approve- withdraw+", "recording recording manual holds"},
        Case{"start:user+ started+ stop+ stopped:upload+ pair- start:user- start:agent- retry-",
             "uploading busy manual uploading holds"},
        Case{"start:user+ started+ stop+ stopped:upload+ uploadEnded+ uploadEnded-", "idle"},
        Case{"start:user+ started+ stop+ stopped+", "idle"},
        // One thing at a time: no second start, no retry beside a recording.
        Case{"start:user+ start:user- start:agent- retry- started+ started- retry-",
             "recording consent recording manual holds"},
        // A retry is the user's upload: nothing starts beside it, the next approval may wait.
        Case{"retry+ start:user- start:agent- retry- pair- approve+",
             "uploading consent busy uploading holds"},
        Case{"retry+ uploadEnded+ approve+ start:agent+", "starting consent busy holds"},
        // Pairing holds the user's start and retry, not the agent's start.
        Case{"pair+ pair- start:user- retry- approve+ start:agent+", "starting consent busy holds"},
        Case{"pair+ paired+ start:user+", "starting consent busy holds"},
        // Steps out of order change nothing.
        Case{"started- startFailed- stop- stopped- stopped:upload- uploadEnded- withdraw+",
             "idle"}));

TEST(LifecycleRecord, TheRecordFollowsTheRecordingAndTheRetry) {
    RecordingLifecycle l;
    ASSERT_TRUE(l.beginStart(Owner::user) && l.started("A") && l.beginStop() && l.stopped(true));
    EXPECT_EQ(l.record(), "A");
    EXPECT_FALSE(l.retrying());
    ASSERT_TRUE(l.uploadEnded() && l.beginRetry("B"));
    EXPECT_EQ(l.record(), "B");
    EXPECT_TRUE(l.retrying());
    EXPECT_EQ(l.owner(), Owner::user);
}

Timing regressionTiming() {
    auto timing = fastTiming();
    timing.watchInterval = milliseconds(20);
    return timing;
}

// Closes the connection a request came on without a byte of reply, as a service or a proxy
// does when it drops a kept-alive connection: the socket is found by its two ports.
void dropConnection(const httplib::Request& request) {
    for (int fd = 3; fd < 1024; ++fd) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
            peer.ss_family != AF_INET) {
            continue;
        }
        if (ntohs(reinterpret_cast<sockaddr_in*>(&peer)->sin_port) == request.remote_port) {
            linger hard{1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            shutdown(fd, SHUT_RDWR);
            return;
        }
    }
}

class Regression : public StudioTest {
  protected:
    explicit Regression(Timing timing = regressionTiming()) : StudioTest(timing) {
        show();
        h.studio().selectSource("window-4242");
    }
};

TEST_F(Regression, TheAgentsUploadIsBusyAndARecordingCannotStartBesideIt) {
    h.pairWithCode();
    auto id = Uuid::make();
    uploads.expect(id);
    // Every upload waits at its begin until the test lets it go.
    std::promise<void> release;
    auto released = release.get_future().share();
    uploads.onBegin([released] { released.wait(); });
    h.studio().setConsent(true);
    ASSERT_TRUE(call("startRecording", json::array({{{"captureId", id}}})).contains("value"));
    ASSERT_TRUE(call("stopRecording").contains("value"));
    ASSERT_TRUE(h.runUntil([&] { return h.studio().current()->stage == Stage::uploading; }));
    EXPECT_TRUE(s().busy && s().uploading && !s().recording);

    // The connection blips: the reconnect pairs again beside the upload, while neither the
    // user's recording nor a retry may start.
    h.service.failPolls(1, 502);
    ASSERT_TRUE(h.runUntil([&] { return !s().connected; }));
    h.await(h.studio().recordNow());
    EXPECT_EQ(capture.streams->starts, 1);
    EXPECT_FALSE(h.studio().canRetry(s().recent[0]));
    ASSERT_TRUE(h.runUntil([&] { return s().connected; }));
    EXPECT_EQ(h.studio().shareBlocker(), std::nullopt);

    release.set_value();
    ASSERT_TRUE(h.runUntil([&] { return !s().uploading; }));
    EXPECT_EQ(h.studio().current()->stage, Stage::uploaded);
    EXPECT_FALSE(s().busy);
    EXPECT_TRUE(published(id));
}

// An upload that failed puts its record back while the disk is slow to answer; the session
// that ends in that moment must not cut the clean-up short and leave the upload open for good.
TEST_F(Regression, ASessionEndingWhileAFailedUploadPutsItsRecordBackStillEndsTheUpload) {
    h.pairWithCode();
    auto id = Uuid::make();
    uploads.expect(id);
    std::promise<void> disk;
    auto released = disk.get_future().share();
    uploads.onBegin([&, released] { StudioTestAccess::blockLibrary(h.studio(), released); });
    uploads.fault(ScriptedUploads::Fault::badGateway);
    h.studio().setConsent(true);
    ASSERT_TRUE(call("startRecording", json::array({{{"captureId", id}}})).contains("value"));
    ASSERT_TRUE(call("stopRecording").contains("value"));
    // The failure is noted, then the record goes back to saved: that write now waits.
    ASSERT_TRUE(h.runUntil([&] { return !s().lastErrorCode.empty(); }));

    h.await(h.studio().disconnect("Bye."));
    disk.set_value();
    ASSERT_TRUE(h.runUntil([&] { return !s().busy; })) << phaseText(h.studio().lifecycle().phase());
    EXPECT_FALSE(s().uploading);
    ASSERT_EQ(s().recent.size(), 1u);
    EXPECT_EQ(s().recent[0].stage, Stage::saved);
}

TEST_F(Regression, ADisconnectThatCancelsAPendingPairingKeepsItsOwnSentence) {
    h.pairWithCode();
    h.studio().setDiagnosticsOptIn(true);
    // The reconnect's resume is slow to answer; the disconnect comes first.
    std::promise<void> answer;
    auto answered = answer.get_future().share();
    std::atomic<bool> resuming{false};
    h.server.on(path("device/resume"),
                [&, answered](const httplib::Request&, httplib::Response& response) {
                    resuming = true;
                    answered.wait();
                    response.set_content("{}", "application/json");
                });
    h.service.failPolls(1, 503);
    ASSERT_TRUE(h.runUntil([&] { return resuming.load(); }));
    const std::string bye = "Disconnected. Local videos remain on this computer.";
    h.await(h.studio().disconnect(bye));
    answer.set_value();
    h.runFor(milliseconds(100));  // the cancelled pairing's reply arrives and changes nothing
    EXPECT_EQ(s().status, bye);
    EXPECT_FALSE(s().connected || s().busy);
    EXPECT_FALSE(h.log.contains("pair failed"));
    EXPECT_EQ(h.server.count(path("diagnostics")), 0u);
}

TEST_F(Regression, AUsersRecordingWhoseWindowClosesIsStoppedAndUploadedByTheUser) {
    pairAndLeave();
    auto id = Uuid::make();
    uploads.issue(id);
    h.server.clear();
    h.await(h.studio().recordNow());
    ASSERT_TRUE(s().manual);
    h.content.set(editorDesktop(false));
    ASSERT_TRUE(h.runUntil([&] { return published(id) && !s().busy; }));
    EXPECT_EQ(h.studio().current()->stage, Stage::uploaded);
    EXPECT_FALSE(s().manual || s().recording);
    EXPECT_TRUE(h.log.contains("status: The recorded window closed."));
    EXPECT_EQ(h.server.count(path("disconnect")), 0u);  // no session to end
}

TEST_F(Regression, TheSessionsEndForgetsItsAddressAndALinkForAnotherServerEndsTheOldSession) {
    h.pairWithCode();
    auto oldToken = h.service.lastCredential()["accessToken"].get<std::string>();
    h.await(h.studio().disconnect("Disconnected. Local videos remain on this computer."));
    EXPECT_EQ(failureOf<PavixError>([&] { h.await(h.studio().post("poll")); }), "Not connected");

    // A second service on another port: the link's server. The old session ends at the old one
    // and nothing with the old token ever reaches the new one.
    TestServer other;
    ScriptedService otherService(other);
    h.pairWithCode();
    oldToken = h.service.lastCredential()["accessToken"].get<std::string>();
    auto disconnectsBefore = h.server.count(path("disconnect"));
    h.studio().applySetupLink("pavix-mac://pair?server=" + other.base() + "&code=NEW-CODE");
    ASSERT_TRUE(h.runUntil([&] { return s().connected && other.count(path("poll")); }));
    EXPECT_EQ(h.server.count(path("disconnect")), disconnectsBefore + 1);
    EXPECT_EQ(s().server, other.base());
    for (const auto& request : other.requests()) {
        EXPECT_NE(request.header("Authorization"), "Bearer " + oldToken) << request.path;
    }
    auto polls = h.server.count(path("poll"));
    h.runFor(milliseconds(300));
    EXPECT_EQ(h.server.count(path("poll")), polls);  // the old loop has ended
}

TEST_F(Regression, AConnectionDroppedWithoutAReplyIsOneFailedRequestNeverSentTwice) {
    pairAndLeave();
    // Warm a kept-alive connection, then drop the next request on it without a byte.
    int pairs = 0;
    h.server.on(path("pair"), [&](const httplib::Request& request, httplib::Response& response) {
        if (++pairs == 1) {
            dropConnection(request);
            return;
        }
        response.set_content("{}", "application/json");
    });
    h.await(h.studio().forgetDevice());
    h.studio().setCode("ONE-TIME");
    h.await(h.studio().pair());
    EXPECT_EQ(pairs, 1);
    EXPECT_EQ(s().status, "The network connection was lost.");
    EXPECT_FALSE(s().connected);
}

// The device is forgotten while the user's start still waits for the service's capture id: the
// start ends with the session and nothing is recorded for a computer that is no longer paired.
TEST_F(Regression, AUsersStartThatOutlivesItsSessionRecordsNothing) {
    pairAndLeave();
    std::promise<void> answer;
    auto answered = answer.get_future().share();
    std::atomic<bool> asked{false};
    const auto id = Uuid::make();
    h.server.on(path("desktop-recording/begin"),
                [&, answered](const httplib::Request&, httplib::Response& response) {
                    asked = true;
                    answered.wait();
                    response.set_content(json{{"id", id}}.dump(), "application/json");
                });
    bool started = false;
    asio::co_spawn(h.io, h.studio().recordNow(), [&](std::exception_ptr) { started = true; });
    ASSERT_TRUE(h.runUntil([&] { return asked.load(); }));
    h.await(h.studio().forgetDevice());
    answer.set_value();
    ASSERT_TRUE(h.runUntil([&] { return started; }));
    EXPECT_FALSE(s().recording || s().busy || s().manual || s().paired);
    EXPECT_EQ(capture.streams->starts, 0);
    EXPECT_TRUE(s().recent.empty());
    EXPECT_EQ(s().status, "Disconnected. Local videos remain on this computer.");
}

// Sleep, a lock or a switch of user ends what is open with its sentence, and leaves an idle
// computer as it was.
TEST_F(Regression, TheSystemTakingTheSessionEndsOnlyWhatIsOpen) {
    const std::string sentence =
        "Computer went to sleep, locked or switched user. Recording stopped and any local "
        "capture was saved. Approve a new recording to continue.";
    h.await(h.studio().systemSessionEnding());  // idle and unpaired
    EXPECT_EQ(s().status, "Choose a source, then pair with your agent.");

    h.pairWithCode();
    h.await(h.studio().systemSessionEnding());
    EXPECT_EQ(s().status, sentence);
    EXPECT_FALSE(s().connected);
    EXPECT_EQ(h.server.count(path("disconnect")), 1u);

    auto id = Uuid::make();
    uploads.issue(id);
    h.await(h.studio().recordNow());
    ASSERT_TRUE(s().recording) << s().status;
    h.await(h.studio().systemSessionEnding());
    EXPECT_EQ(s().status, sentence);
    EXPECT_FALSE(s().recording || s().busy || s().uploading);
    ASSERT_TRUE(h.studio().current());
    EXPECT_EQ(h.studio().current()->stage, Stage::saved);
    EXPECT_FALSE(published(id));
}

// A library folder on a disk that stops answering: every wait for it is bounded, the user
// hears why, and the model comes back to rest; once the disk answers again, recording works.
class HungLibrary : public Regression {
  protected:
    HungLibrary() : Regression(timing()) {}
    static Timing timing() {
        auto timing = regressionTiming();
        // Short enough for the hung folder to cost little, long enough for a real write of
        // the library on a busy machine once the folder answers again.
        timing.journalTimeout = milliseconds(500);
        return timing;
    }
};

TEST_F(HungLibrary, AFolderThatStopsAnsweringCostsABoundedWaitAndNothingElse) {
    pairAndLeave();
    uploads.issue(Uuid::make());
    std::promise<void> disk;
    StudioTestAccess::blockLibrary(h.studio(), disk.get_future().share());
    h.await(h.studio().recordNow());
    EXPECT_EQ(s().status, "The library folder did not answer in time.");
    EXPECT_FALSE(s().busy || s().recording || s().manual || s().consent);
    EXPECT_EQ(h.studio().lifecycle().phase(), RecordingLifecycle::Phase::idle);
    EXPECT_FALSE(h.studio().capture().running());

    disk.set_value();
    auto id = Uuid::make();
    uploads.issue(id);
    h.await(h.studio().recordNow());
    ASSERT_TRUE(s().recording) << s().status;
    h.await(h.studio().stopManual());
    ASSERT_TRUE(h.runUntil([&] { return !s().busy; }));
    ASSERT_EQ(s().recent.size(), 1u);
    EXPECT_EQ(s().recent[0].stage, Stage::uploaded);
    EXPECT_TRUE(published(id));
}

}  // namespace
}  // namespace pavix::test
