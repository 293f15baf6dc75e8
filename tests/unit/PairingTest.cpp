// Pairing with a code or a saved credential, the timed refresh, setup links, ending a session
// and forgetting the device, against a scripted service on loopback.
#include <gtest/gtest.h>

#include <future>

#include "core/session/KeychainError.h"
#include "support/StudioTest.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

class Pairing : public StudioTest {
  protected:
    std::string savedSecret() {
        std::lock_guard lock(h.secrets.mutex);
        auto found = h.secrets.items.find({DeviceKeychain::service(), h.server.base()});
        return found == h.secrets.items.end() ? "" : found->second;
    }
    // The paths of the requests other than polls: a poll of the ended connection may arrive
    // late.
    std::vector<std::string> calls() {
        std::vector<std::string> seen;
        for (const auto& request : h.server.requests()) {
            if (request.path != path("poll")) {
                seen.push_back(request.path.substr(path("").size()));
            }
        }
        return seen;
    }
    std::string token(const char* which = "accessToken") {
        return h.service.lastCredential()[which].get<std::string>();
    }
    void expectNoSecretsLogged() {
        for (const auto& line : h.log.lines()) {
            for (const char* secret : {"access-", "refresh-", "ABCD-1234", "Bearer"}) {
                EXPECT_EQ(line.find(secret), std::string::npos) << line;
            }
        }
    }
};

TEST_F(Pairing, CodeIsTrimmedAndTheCredentialIsKeptPerServer) {
    h.studio().setCode("  ABCD-1234\n");
    h.await(h.studio().pair());
    ASSERT_TRUE(s().connected) << s().status;
    EXPECT_TRUE(s().paired);
    EXPECT_FALSE(s().busy);
    auto pair = h.server.requests(path("pair"));
    ASSERT_EQ(pair.size(), 1u);
    EXPECT_EQ(json::parse(pair[0].body),
              json({{"code", "ABCD-1234"}, {"persistent", true}, {"deviceName", "test-host"}}));
    // The keyring item for this server holds exactly the credential, keys in order.
    EXPECT_EQ(savedSecret(), DeviceIdentity::fromJson(h.service.lastCredential()).toJson());
    EXPECT_EQ(savedSecret().find("\"deviceId\""), 1u);
    EXPECT_TRUE(h.log.contains("code=present"));
    expectNoSecretsLogged();
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(path("poll")) > 0; }));
}

// A refused pairing leaves the computer unpaired with nothing saved, and says why.
TEST_F(Pairing, ARefusedPairingSaysWhyAndKeepsNothing) {
    auto expectRefused = [&](const std::string& sentence, const std::string& code) {
        EXPECT_EQ(s().status, sentence);
        EXPECT_EQ(s().lastErrorCode, code);
        EXPECT_FALSE(s().connected || s().paired || s().busy);
        EXPECT_EQ(savedSecret(), "");
    };
    // A keyring that refuses to store the credential.
    h.secrets.failWith = KeychainError::kInteractionNotAllowed;
    h.studio().setCode("ABCD-1234");
    h.await(h.studio().pair());
    h.secrets.failWith = 0;
    expectRefused("Pavix could not access its saved device credential in the keyring (-25308).",
                  "other");

    // Replies that are no pairing for this computer app: the status, the reply, the sentence
    // and the code.
    const std::string identity = R"({"deviceId":"d","accessToken":"a","accessExpiresAt":1e13,
        "refreshToken":"r","refreshExpiresAt":1e13)";
    const std::string invalid = "Invalid pairing response";
    const std::vector<std::tuple<int, std::string, std::string, std::string>> cases{
        {200, identity + "}", invalid, "app_rule"},
        {200, identity + R"(,"token":42,"mode":"desktop"})", invalid, "app_rule"},
        {200, identity + R"(,"token":"t","mode":"browser"})",
         "Ask your agent to use desktop_recording_pair for this computer app.", "app_rule"},
        {200, R"({"token":"t","mode":"desktop","deviceId":7})",
         "The data couldn't be read because it isn't in the correct format.", "other"},
        {200, "[]", invalid, "app_rule"},
        {400, R"({"error":"pairing_code_invalid"})",
         "That pairing code is invalid or expired. Ask your agent for a new one.",
         "pairing_code_invalid"}};
    for (const auto& [status, reply, sentence, code] : cases) {
        SCOPED_TRACE(reply);
        h.server.reply(path("pair"), status, reply);
        h.studio().setCode("CODE");
        h.await(h.studio().pair());
        expectRefused(sentence, code);
    }
    EXPECT_TRUE(h.log.contains("pair failed: That pairing code is invalid"));

    h.studio().setServer("http://example.com");
    h.await(h.studio().pair());
    expectRefused("Use an HTTPS server, or localhost for development.", "app_rule");
}

TEST_F(Pairing, ABadServerTypedInWhileASessionRunsEndsThatSessionAtItsServer) {
    h.pairWithCode();
    auto bearer = "Bearer " + token();
    h.studio().setServer("ftp://example.com");
    h.await(h.studio().pair());
    EXPECT_EQ(s().status, "Use an HTTPS server, or localhost for development.");
    EXPECT_FALSE(s().connected);
    auto ends = h.server.requests(path("disconnect"));
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].header("Authorization"), bearer);
    EXPECT_FALSE(h.studio().hasSessionToken());
}

TEST_F(Pairing, SavedCredentialResumesWithRefreshThenResume) {
    h.pairWithCode();
    auto first = h.service.lastCredential();
    h.await(h.studio().disconnect("Bye."));
    EXPECT_FALSE(s().connected);
    EXPECT_TRUE(s().paired);
    h.server.clear();

    h.await(h.studio().pair());
    ASSERT_TRUE(s().connected);
    auto seen = calls();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[0], "device/refresh");
    EXPECT_EQ(json::parse(h.server.requests(path("device/refresh"))[0].body),
              json({{"refreshToken", first["refreshToken"]}}));
    EXPECT_EQ(seen[1], "device/resume");
    // The resume already carries the rotated token, and the keyring holds the new credential.
    EXPECT_EQ(h.server.requests(path("device/resume"))[0].header("Authorization"),
              "Bearer " + token());
    EXPECT_EQ(savedSecret(), DeviceIdentity::fromJson(h.service.lastCredential()).toJson());
    EXPECT_EQ(h.server.count(path("pair")), 0u);
}

TEST_F(Pairing, RejectedSavedCredentialFallsBackToTheCodeOrAsksForOne) {
    pairAndLeave();
    h.server.reply(path("device/refresh"), 401, R"({"error":"device_credentials_expired"})");
    // Without a code: unpaired, with the sentence, and the saved item is gone.
    h.await(h.studio().pair());
    EXPECT_EQ(s().status,
              "This computer's saved pairing is no longer valid. Enter a new code from your "
              "agent or open a setup link, then share again.");
    EXPECT_FALSE(s().paired || s().connected);
    EXPECT_EQ(savedSecret(), "");
    EXPECT_TRUE(h.log.contains(
        "saved pairing rejected by server; discarding it (code device_credentials_expired)"));

    // Paired again, then rejected again, but this time a fresh code was typed: it pairs.
    pairAndLeave();
    h.studio().setCode("NEW-CODE");
    h.server.clear();
    h.await(h.studio().pair());
    EXPECT_TRUE(s().connected) << s().status;
    EXPECT_EQ(calls(), (std::vector<std::string>{"device/refresh", "pair"}));
    EXPECT_EQ(json::parse(h.server.requests(path("pair"))[0].body)["code"], "NEW-CODE");
    expectNoSecretsLogged();
}

TEST(RefreshDelay, RunsTwoMinutesEarlyButNeverSoonerThanFiveSeconds) {
    Timing timing;
    double now = 1'800'000'000'000.0;
    EXPECT_EQ(refreshDelay(now + 3'600'000, now, timing), milliseconds(3'480'000));
    EXPECT_EQ(refreshDelay(now + 126'000, now, timing), milliseconds(6'000));
    EXPECT_EQ(refreshDelay(now + 124'000, now, timing), milliseconds(5'000));
    EXPECT_EQ(refreshDelay(now - 10'000, now, timing), milliseconds(5'000));
}

// Tokens that expire at once: the refresh fires at its floor, again and again.
Timing refreshingTiming(milliseconds floor) {
    Timing timing = fastTiming();
    timing.refreshLead = milliseconds(0);
    timing.refreshFloor = floor;
    return timing;
}

TEST(TimedRefresh, RotatesTheCredentialAndRearms) {
    StudioHarness h(refreshingTiming(fastTiming().refreshFloor));
    h.service.accessExpiresAt = h.nowMs;
    h.pairWithCode();
    // Each refresh hands out a new token and the studio takes each one up.
    ASSERT_TRUE(h.runUntil([&] {
        return h.server.count(ScriptedService::path("device/refresh")) >= 2 &&
               h.studio().identity()->accessToken ==
                   h.service.lastCredential()["accessToken"].get<std::string>();
    }));
    // A failing refresh is logged and leaves the session as it is.
    h.server.reply(ScriptedService::path("device/refresh"), 500, "{}");
    ASSERT_TRUE(h.runUntil([&] { return h.log.contains("refresh failed: Server refused"); }));
    EXPECT_TRUE(h.log.contains("domain=PavixHTTPError code=500"));
    EXPECT_TRUE(h.studio().state().connected);
}

TEST(TimedRefresh, BelongsToOneConnection) {
    StudioHarness h(refreshingTiming(milliseconds(200)));
    h.service.accessExpiresAt = h.nowMs;
    h.pairWithCode();
    h.await(h.studio().disconnect("Bye."));
    h.runFor(milliseconds(400));
    EXPECT_EQ(h.server.count(ScriptedService::path("device/refresh")), 0u);
}

TEST_F(Pairing, SetupLinks) {
    auto link = [&](const std::string& query) { return "pavix-mac://pair?" + query; };
    auto server = "server=" + percentEncode(h.server.base());
    const std::vector<std::pair<std::string, std::string>> refused{
        {"https://example.com/pair?code=1", "Choose a source, then pair with your agent."},
        {"pavix-mac://other?code=1", "This Pavix link is not supported."},
        {link("server=http%3A%2F%2Fexample.com&code=1"),
         "The setup link points to an unsupported server. Use an HTTPS Pavix server."},
        {link(server), "Setup link received without a code. Ask for a new link."}};
    for (const auto& [refusedLink, sentence] : refused) {
        h.studio().applySetupLink(refusedLink);
        EXPECT_EQ(s().status, sentence) << refusedLink;
    }

    h.studio().applySetupLink(link(server + "&code=LINK-CODE"));
    EXPECT_EQ(s().status, "Setup link received. Connecting…");
    ASSERT_TRUE(h.runUntil([&] { return s().connected; }));
    EXPECT_EQ(json::parse(h.server.requests(path("pair"))[0].body)["code"], "LINK-CODE");

    // Opened again while paired with the same server: resumes with the saved credential.
    h.await(h.studio().disconnect("Bye."));
    h.studio().applySetupLink(link(server + "&code=IGNORED"));
    EXPECT_EQ(s().status, "This computer is already paired with 127.0.0.1.");
    ASSERT_TRUE(h.runUntil([&] { return s().connected; }));
    EXPECT_EQ(h.server.count(path("pair")), 1u);

    // A link for another server drops the in-memory credential but keeps the saved one.
    h.await(h.studio().disconnect("Bye."));
    h.studio().applySetupLink(link("server=https%3A%2F%2Fagent.example.org&code="));
    EXPECT_EQ(s().server, "https://agent.example.org");
    EXPECT_FALSE(s().paired);
    EXPECT_NE(savedSecret(), "");
}

TEST_F(Pairing, DisconnectTellsTheServerAndKeepsTheCredential) {
    h.await(h.studio().disconnect("Nothing to end."));
    EXPECT_TRUE(h.log.contains("disconnect skipped: no session token"));

    h.pairWithCode();
    h.studio().setConsent(true);
    auto generation = h.studio().connectionGeneration();
    h.await(h.studio().disconnect("Disconnected. Local videos remain on this computer."));
    EXPECT_EQ(h.server.count(path("disconnect")), 1u);
    EXPECT_TRUE(h.log.contains("disconnect acknowledged by server"));
    EXPECT_NE(h.studio().connectionGeneration(), generation);
    EXPECT_FALSE(s().connected || s().consent || h.studio().hasSessionToken());
    EXPECT_TRUE(s().paired);
    EXPECT_EQ(s().status, "Disconnected. Local videos remain on this computer.");
    EXPECT_NE(savedSecret(), "");

    h.pairWithCode();
    h.server.reply(path("disconnect"), 503, "{}");
    h.await(h.studio().disconnect("Bye."));
    EXPECT_TRUE(h.log.contains("disconnect not delivered: Server refused the request (503)"));
}

TEST_F(Pairing, ForgettingRevokesRemovesAndUnpairs) {
    h.pairWithCode();
    auto refreshToken = token("refreshToken");
    h.await(h.studio().forgetDevice());
    auto revoke = h.server.requests(path("device/revoke"));
    ASSERT_EQ(revoke.size(), 1u);
    EXPECT_EQ(json::parse(revoke[0].body), json({{"refreshToken", refreshToken}}));
    EXPECT_FALSE(s().paired);
    EXPECT_FALSE(h.studio().identity().has_value());
    EXPECT_EQ(savedSecret(), "");
    EXPECT_EQ(s().status, "Disconnected. Local videos remain on this computer.");

    // With an expired access token the credential is refreshed before it is revoked.
    h.service.accessExpiresAt = h.nowMs - 1;
    h.pairWithCode();
    h.server.clear();
    h.await(h.studio().forgetDevice());
    EXPECT_EQ(calls(), (std::vector<std::string>{"disconnect", "device/refresh", "device/revoke"}));
    EXPECT_EQ(h.server.requests(path("device/revoke"))[0].header("Authorization"),
              "Bearer " + token());
}

TEST_F(Pairing, OnlyOnePairingRunsAtATime) {
    std::promise<void> answer;
    auto answered = answer.get_future().share();
    h.server.on(path("pair"), [answered](const httplib::Request&, httplib::Response& response) {
        answered.wait();
        response.status = 400;
        response.set_content(R"({"error":"pairing_code_invalid"})", "application/json");
    });
    h.studio().setCode("CODE");
    bool firstDone = false, secondDone = false;
    asio::co_spawn(h.io, h.studio().pair(), [&](std::exception_ptr) { firstDone = true; });
    asio::co_spawn(h.io, h.studio().pair(), [&](std::exception_ptr) { secondDone = true; });
    ASSERT_TRUE(h.runUntil([&] { return secondDone || h.server.count(path("pair")) == 1; }));
    h.runFor(milliseconds(50));  // a second pairing would post its own request meanwhile
    answer.set_value();
    ASSERT_TRUE(h.runUntil([&] { return firstDone && secondDone; }));
    EXPECT_EQ(h.server.count(path("pair")), 1u);
    EXPECT_FALSE(s().busy);
}

}  // namespace
}  // namespace pavix::test
