// The long-poll command loop against a scripted service on loopback: envelopes, replies,
// error reduction, generation retirement, reconnects and the recording watchdog.
#include <gtest/gtest.h>

#include <future>

#include "core/runtime/Uuid.h"
#include "core/session/CommandEnvelope.h"
#include "support/StudioTest.h"
#include "support/StudioTestAccess.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

// The editor's desktop, with a second window too narrow to be offered.
ShareableContentSnapshot desktop() {
    auto snapshot = editorDesktop();
    auto tiny = snapshot.windows[0];
    tiny.id = 7;
    tiny.width = 319;
    snapshot.windows.push_back(tiny);
    return snapshot;
}

// Poll replies that hold no command to take: not an object, no command object, or an id that
// is no UUID.
const json kMalformed = json::parse(R"([{}, [], {"command":{}}, {"command":"listSources"},
    {"command":{"id":"abc","method":"listSources"}}, {"command":{"id":12,"method":"listSources"}},
    {"command":{"id":"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F00"}}])");

class CommandLoop : public StudioTest {
  protected:
    void SetUp() override {
        show(desktop());
        h.pairWithCode();
    }
    std::size_t polls() { return h.server.count(path("poll")); }
};

TEST_F(CommandLoop, SourcesAreListedAndSelectedWithMeta) {
    auto listed = call("listSources");
    ASSERT_TRUE(listed.contains("value")) << listed.dump();
    EXPECT_EQ(listed["value"]["sources"], json::parse(R"json([
                {"id":"window-4242","title":"Text Editor — notes.txt","kind":"window","width":800,"height":600},
                {"id":"display-77","title":"Entire display 77 (includes other visible apps)","kind":"display","width":1920,"height":1080}])json"));
    EXPECT_EQ(listed["meta"]["recordingMode"], "screencast");
    EXPECT_EQ(listed["meta"]["pointerTrail"], json::array());
    EXPECT_EQ(listed["meta"]["identitySightings"], json::array());

    auto selected = call("selectSource", json::array({{{"sourceId", "window-4242"}}}));
    EXPECT_EQ(
        selected["value"]["selected"],
        json::parse(
            R"({"id":"window-4242","title":"Text Editor — notes.txt","width":800,"height":600})"));
    EXPECT_EQ(selected["meta"]["captureViewport"], json({{"width", 800}, {"height", 600}}));
    EXPECT_EQ(s().selection, "window-4242");
    EXPECT_TRUE(h.log.contains("agent selected source window-4242"));
    EXPECT_EQ(call("listSources")["value"]["selected"], "window-4242");
}

TEST_F(CommandLoop, FailuresAreReducedForTheAgentAndLoggedInFull) {
    const std::vector<std::tuple<std::string, json, std::string, std::string>> cases{
        {"selectSource", json::array({{{"sourceId", "window-1"}}}), "local_browser_action_failed",
         "pavix command selectSource failed: Source not found. Ask for the list again."},
        {"selectSource", json::array({"window-4242"}), "local_browser_action_failed",
         "pavix command selectSource failed: Source not found."},
        {"frobnicate", json::array(), "local_browser_action_failed",
         "pavix command frobnicate failed: Unknown method frobnicate."},
        {"readPage", json::array(),
         "local_method_forbidden: turn on Let your agent operate the shared window in Pavix "
         "Settings",
         "pavix command readPage failed: local_method_forbidden"}};
    for (const auto& [method, args, error, logged] : cases) {
        EXPECT_EQ(call(method, args), json({{"error", error}})) << method;
        EXPECT_TRUE(h.log.contains(logged)) << logged;
    }
    h.studio().setAllowControl(true);
    h.studio().selectSource("display-77");
    EXPECT_EQ(call("pointer"),
              json({{"error", "local_method_forbidden: share a window, not a display"}}));
    EXPECT_EQ(s().lastErrorCode, "app_rule");

    // A window: the control session reads it on the control thread, once accessibility is on.
    h.studio().selectSource("window-4242");
    h.accessibility.on = false;
    EXPECT_EQ(call("readPage"),
              json({{"error", "local_method_forbidden: Accessibility permission is off"}}));
    h.accessibility.on = true;
    AccessibleElement tree;
    tree.children.push_back({facts("button", "Save", {10, 10, 40, 20}), {}, {}});
    h.accessibility.tree = tree;
    auto outline = call("readPage");
    EXPECT_NE(outline["value"].get<std::string>().find("\n  [ref_1] button \"Save\" — visible at"),
              std::string::npos)
        << outline.dump();
    EXPECT_EQ(call("currentUrl")["value"], "https://app.pavix.app");  // never fails
}

TEST(CommandEnvelopeRules, OnlyCommandsWithAUuidAreTakenAndOnlyActionableCodesPass) {
    using namespace CommandEnvelope;
    for (const auto& reply : kMalformed) {
        EXPECT_FALSE(parse(reply)) << reply.dump();
    }
    auto id = std::string("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0");
    auto taken = parse({{"command", {{"id", id}, {"method", 5}, {"args", {{"a", 1}}}}}});
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->id, id);  // exactly as it arrived, capitals included
    EXPECT_EQ(taken->method, "");
    EXPECT_EQ(taken->args, json::array());
    EXPECT_EQ(namedArguments(json::array({1, {{"a", 1}}})), json::object());
    EXPECT_EQ(namedArguments(json::array({{{"a", 1}}})), json({{"a", 1}}));

    EXPECT_EQ(agentErrorText("local_method_forbidden: Accessibility permission is off"),
              "local_method_forbidden: Accessibility permission is off");
    EXPECT_EQ(agentErrorText("local_sign_in_required"), "local_sign_in_required");
    EXPECT_EQ(agentErrorText(" local_method_forbidden"), "local_browser_action_failed");
    EXPECT_EQ(agentErrorText(""), "local_browser_action_failed");
}

TEST_F(CommandLoop, EmptyAndMalformedCommandsGetNoReplyAndPollingGoesOn) {
    for (const auto& reply : kMalformed) {
        h.service.queue(reply);
    }
    auto before = polls();
    // Every queued reply is taken by one poll; the loop keeps asking afterwards.
    ASSERT_TRUE(h.runUntil([&] { return polls() >= before + kMalformed.size() + 1; }));
    EXPECT_EQ(h.server.count(path("result/abc")), 0u);
    EXPECT_TRUE(h.service.results().empty());
    EXPECT_TRUE(s().connected);

    // Arguments of the wrong type count as none; a method that is not text is unknown.
    EXPECT_TRUE(call("listSources", json::object()).contains("value"));
    auto odd = Uuid::make();
    h.server.reply(path("result/" + odd), 200, "{}");
    h.service.queue({{"command", {{"id", odd}, {"method", json::array()}}}});
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(path("result/" + odd)) == 1; }));
    EXPECT_EQ(json::parse(h.server.requests(path("result/" + odd))[0].body),
              json({{"error", "local_browser_action_failed"}}));
}

TEST_F(CommandLoop, AResultForAnEndedConnectionIsNeverPosted) {
    // The listing blocks until the test has ended the connection.
    struct SlowContent : ShareableContent {
        std::promise<void> release;
        std::shared_future<void> gate = release.get_future().share();
        std::atomic<bool> entered{false};
        ShareableContentSnapshot current() override {
            entered = true;
            gate.wait();
            return desktop();
        }
        ~SlowContent() override {
            if (gate.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
                release.set_value();
            }
        }
    } slow;
    h.studio().environment().content = &slow;
    auto id = h.service.queueCommand("listSources");
    ASSERT_TRUE(h.runUntil([&] { return slow.entered.load(); }));
    auto oldGeneration = h.studio().connectionGeneration();
    h.await(h.studio().disconnect("Bye."));
    h.studio().environment().content = &h.content;
    h.pairWithCode();  // a new connection, so the old one's result would have somewhere to go
    slow.release.set_value();
    h.runFor(milliseconds(300));
    EXPECT_NE(h.studio().connectionGeneration(), oldGeneration);
    EXPECT_FALSE(h.service.result(id).has_value());
    EXPECT_FALSE(h.log.contains("pavix command listSources failed"));
}

// A poll that fails for a moment (a bad gateway, a dropped connection) is followed by one
// reconnect with the saved credential after the delay; any other failure ends the session at
// the service with its sentence, and nothing reconnects.
TEST_F(CommandLoop, APollFailureReconnectsWhenMomentaryAndElseEndsTheSession) {
    const std::string unreachable = "Pavix is unreachable for a moment. Reconnecting…";
    // The poll's status (0: the connection drops halfway through the reply), its body and the
    // session's sentence.
    const std::vector<std::tuple<int, std::string, std::string>> cases{
        {502, "Bad Gateway", unreachable},
        {0, "", unreachable},
        {501, R"({"error":"not_implemented"})",
         "Server refused the request (501). Try sharing again; your local files are preserved."},
        {200, R"({"command": {"id")", "The server sent a reply that is not valid JSON."},
        {401, R"({"error":"device_credentials_expired"})",
         "This computer's credential expired or was revoked. Pair again with a new code from "
         "your agent; local videos are preserved."}};
    for (const auto& [status, body, sentence] : cases) {
        SCOPED_TRACE(status);
        const bool momentary = sentence == unreachable;
        auto failed = std::make_shared<std::atomic<bool>>(false);
        // A momentary failure hits the first poll only.
        h.server.on(path("poll"), [status, body, momentary, failed](const httplib::Request&,
                                                                    httplib::Response& response) {
            if (momentary && failed->exchange(true)) {
                std::this_thread::sleep_for(milliseconds(50));  // an empty long poll
                response.set_content("{}", "application/json");
            } else if (status == 0) {
                TestServer::truncate(response, 200, 20);
            } else {
                response.status = status;
                response.set_content(body, "application/json");
            }
        });
        if (!s().connected) {
            h.pairWithCode();
        }
        auto count = [&](const char* name) { return h.server.count(path(name)); };
        auto [resumes, pairs, ends, refreshes] = std::tuple(
            count("device/resume"), count("pair"), count("disconnect"), count("device/refresh"));
        ASSERT_TRUE(h.runUntil([&] { return !s().connected; }));
        EXPECT_EQ(s().status, sentence);
        EXPECT_EQ(h.studio().reconnectPending(), momentary);
        if (momentary) {
            EXPECT_EQ(count("disconnect"), ends);
            ASSERT_TRUE(h.runUntil([&] { return s().connected; }));
            EXPECT_EQ(count("device/resume"), resumes + 1);  // the saved credential, resumed
            EXPECT_EQ(count("pair"), pairs);
        } else {
            ASSERT_TRUE(h.runUntil([&] { return count("disconnect") == ends + 1; }));
            h.runFor(h.studio().timing().reconnectDelay * 2);
            EXPECT_EQ(count("device/refresh"), refreshes);
            EXPECT_FALSE(s().connected);
        }
    }
}

TEST_F(CommandLoop, OnlyOneReconnectIsEverPending) {
    h.await(h.studio().disconnect("Bye."));
    h.server.clear();
    const auto delay = h.studio().timing().reconnectDelay;
    h.studio().scheduleReconnect();
    h.runFor(delay / 2);
    h.studio().scheduleReconnect();  // replaces the first: one reconnect, a full delay later
    h.runFor(delay * 3 / 4);
    EXPECT_EQ(h.server.count(path("device/refresh")), 0u);
    ASSERT_TRUE(h.runUntil([&] { return s().connected; }));
    h.runFor(delay * 2);
    EXPECT_EQ(h.server.count(path("device/refresh")), 1u);
}

TEST_F(CommandLoop, WatchdogEndsTheSessionWhenSpaceRunsOutOrTheSourceGoes) {
    h.studio().selectSource("window-4242");
    auto source = *h.studio().selectedSource();
    const auto rounds = h.studio().timing().watchInterval * 3;
    auto watch = [&](const std::string& record, const std::string& generation) {
        StudioTestAccess::setRecording(h.studio(), record);
        h.studio().watch(source, generation);
    };
    watch("REC-1", h.studio().connectionGeneration());
    h.volume.set(157'286'399);
    ASSERT_TRUE(h.runUntil([&] { return !s().connected; }));
    EXPECT_EQ(s().status, "Disk almost full. Recording stopped and the local capture was saved.");

    h.volume.set(std::nullopt);  // unknown free space never stops a recording
    h.pairWithCode();
    watch("REC-2", h.studio().connectionGeneration());
    h.runFor(rounds);
    EXPECT_TRUE(s().connected);
    auto minimised = desktop();
    minimised.windows[0].onScreen = false;
    h.content.set(minimised);
    ASSERT_TRUE(h.runUntil([&] { return !s().connected; }));
    EXPECT_EQ(s().status,
              "The recorded window was minimized or hidden. Recording stopped; the local capture "
              "was saved. Approve a new recording when it is visible.");

    // A watchdog of an ended connection does nothing.
    h.pairWithCode();
    watch("REC-3", "an-old-generation");
    h.content.set(ShareableContentSnapshot{});
    h.runFor(rounds);
    EXPECT_TRUE(s().connected);
}

}  // namespace
}  // namespace pavix::test
