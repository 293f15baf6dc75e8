// The session protocol (pairing, credentials, command loop, version check) against the service
// in-process.
#include "DevServerFixture.h"

#include <chrono>
#include <future>
#include <thread>

namespace devtest {
namespace {

using namespace std::chrono_literals;

class ProtocolTest : public ServiceTest {
  protected:
    // Polls until the agent's command arrives.
    static json takeCommand(const FakeApp& app) {
        for (int i = 0; i < 20; ++i) {
            auto p = app.post("poll");
            if (p.body.contains("command"))
                return p.body["command"];
        }
        return nullptr;
    }
};

TEST_F(ProtocolTest, PairingAnswersTheIdentityAndTheCodeWorksOnce) {
    Agent agent(base, key);
    auto code = agent.post("/agent/pairing-codes");
    ASSERT_EQ(code.status, 200);
    EXPECT_EQ(code.body["setupLink"], "pavix-mac://pair?server=http%3A%2F%2F127.0.0.1%3A" +
                                          std::to_string(server->port()) +
                                          "&code=" + code.body["code"].get<std::string>());

    FakeApp app(base);
    auto a = app.pair(code.body["code"]);
    ASSERT_EQ(a.status, 200) << a.raw;
    EXPECT_EQ(a.body["mode"], "desktop");
    for (auto key : {"token", "deviceId", "accessToken", "refreshToken"})
        EXPECT_TRUE(a.body[key].is_string()) << key;
    auto now = ds::nowMs();
    EXPECT_GT(a.body["accessExpiresAt"].get<double>(), now);
    EXPECT_GT(a.body["refreshExpiresAt"].get<double>(), a.body["accessExpiresAt"].get<double>());

    FakeApp second(base);
    auto again = second.pair(code.body["code"]);
    EXPECT_EQ(again.status, 400);
    EXPECT_EQ(again.body["error"], "pairing_code_invalid");
    EXPECT_EQ(second.pair("NOSUCHCD").body["error"], "pairing_code_invalid");

    auto devices = agent.get("/agent/devices").body["devices"];
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0]["deviceId"], app.deviceId());
    EXPECT_EQ(devices[0]["session"], true);
    EXPECT_EQ(devices[0]["name"], "test-box");
}

class ShortLivedCredentials : public ServiceTest {
    void configure(ds::Options& o) override {
        o.codeTtlMs = 150;
        o.accessTtlMs = 400;
        o.refreshGraceMs = 150;
    }
};

TEST_F(ShortLivedCredentials, ExpiredCodeAndExpiredAccessTokenAreRefused) {
    Agent agent(base, key);
    auto stale = agent.code();
    std::this_thread::sleep_for(250ms);
    FakeApp late(base);
    EXPECT_EQ(late.pair(stale).body["error"], "pairing_code_invalid");

    FakeApp app(base);
    ASSERT_EQ(app.pair(agent.code()).status, 200);
    EXPECT_EQ(app.post("poll").status, 200);
    std::this_thread::sleep_for(500ms);
    auto expired = app.post("poll");
    EXPECT_EQ(expired.status, 401);
    EXPECT_EQ(expired.body["error"], "device_credentials_expired");
    // The refresh token outlives it and brings the device back.
    const json replaced = app.identity;
    ASSERT_EQ(app.refresh().status, 200);
    EXPECT_EQ(app.post("poll").status, 200);
    // Past the grace, the token just replaced is refused like any other.
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(app.post("device/refresh", {{"refreshToken", replaced["refreshToken"]}}).status, 401);
}

TEST_F(ProtocolTest, RefreshRotatesBothTokensAndRetiresTheOldOnes) {
    FakeApp app = paired();
    json before = app.identity;
    auto r = app.refresh();
    ASSERT_EQ(r.status, 200) << r.raw;
    EXPECT_EQ(r.body["deviceId"], before["deviceId"]);
    EXPECT_EQ(r.body["mode"], "desktop");
    EXPECT_EQ(r.body["token"], r.body["accessToken"]);
    EXPECT_NE(r.body["accessToken"], before["accessToken"]);
    EXPECT_NE(r.body["refreshToken"], before["refreshToken"]);
    for (auto key : {"accessExpiresAt", "refreshExpiresAt"})
        EXPECT_TRUE(r.body[key].is_number());

    FakeApp old(base);
    old.token = before["accessToken"];
    EXPECT_EQ(old.post("poll").status, 401);
    EXPECT_EQ(app.post("poll").status, 200);
    EXPECT_EQ(old.post("device/refresh", {{"refreshToken", "pvx_rt_unknown"}}).status, 401);

    // A device whose refresh reply was lost holds only the token just replaced: it may rotate
    // once more, which retires the pair it never saw.
    FakeApp lostReply(base);
    lostReply.remember(before);
    ASSERT_EQ(lostReply.refresh().status, 200);
    EXPECT_EQ(app.post("poll").status, 401);
    EXPECT_EQ(lostReply.post("poll").status, 200);
    // Once it has rotated again, neither earlier token rotates any more.
    ASSERT_EQ(lostReply.refresh().status, 200);
    for (const auto& earlier : {before, r.body}) {
        auto reuse = old.post("device/refresh", {{"refreshToken", earlier["refreshToken"]}});
        EXPECT_EQ(reuse.status, 401);
        EXPECT_EQ(reuse.body["error"], "device_credentials_expired");
    }
    EXPECT_EQ(lostReply.post("poll").status, 200);
}

TEST_F(ProtocolTest, AgentCanExpireTheAccessToken) {
    FakeApp app = paired();
    Agent agent(base, key);
    ASSERT_EQ(agent.post("/agent/devices/" + app.deviceId() + "/expire-access").status, 200);
    auto a = app.post("poll");
    EXPECT_EQ(a.status, 401);
    EXPECT_EQ(a.body["error"], "device_credentials_expired");
}

TEST_F(ProtocolTest, RevokeEndsTheCredentialForGood) {
    FakeApp app = paired();
    std::string refresh = app.identity["refreshToken"];
    app.token.clear();  // after "disconnect" the app holds no session token
    auto r = app.post("device/revoke", {{"refreshToken", refresh}});
    ASSERT_EQ(r.status, 200) << r.raw;
    EXPECT_EQ(app.post("device/revoke", {{"refreshToken", refresh}}).status, 401);
    EXPECT_EQ(app.post("device/refresh", {{"refreshToken", refresh}}).status, 401);
    app.token = app.identity["accessToken"];
    EXPECT_EQ(app.post("poll").body["error"], "device_credentials_expired");
    EXPECT_EQ(Agent(base, key).get("/agent/devices").body["devices"][0]["state"], "revoked");
}

TEST_F(ProtocolTest, DisconnectEndsTheSessionAndResumeOpensANewOne) {
    FakeApp app = paired();
    ASSERT_EQ(app.post("disconnect").status, 200);
    auto a = app.post("poll");
    EXPECT_EQ(a.status, 410);
    EXPECT_EQ(a.body["error"], "local_browser_disconnected");
    ASSERT_EQ(app.refresh().status, 200);
    auto resumed = app.post("device/resume");
    ASSERT_EQ(resumed.status, 200) << resumed.raw;
    EXPECT_EQ(app.post("poll").status, 200);
}

TEST_F(ProtocolTest, HeldPollIsEndedByDisconnectFromTheAgent) {
    setPollHold(10000);
    FakeApp app = paired();
    auto start = std::chrono::steady_clock::now();
    auto held = std::async(std::launch::async, [&] { return app.post("poll"); });
    std::this_thread::sleep_for(200ms);
    Agent(base, key).post("/agent/devices/" + app.deviceId() + "/disconnect");
    auto a = held.get();
    EXPECT_EQ(a.body["error"], "local_browser_disconnected");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
}

TEST_F(ProtocolTest, LongPollIsAnsweredByAQueuedCommandAndTheResultIsAcceptedOnce) {
    setPollHold(10000);
    FakeApp app = paired();
    Agent agent(base, key);
    auto start = std::chrono::steady_clock::now();
    auto held = std::async(std::launch::async, [&] { return app.post("poll"); });
    std::this_thread::sleep_for(200ms);  // the poll is held
    auto sent = std::async(std::launch::async, [&] {
        return agent.send(app.deviceId(), "listSources", json::array({json::object()}));
    });
    auto envelope = held.get();
    ASSERT_EQ(envelope.status, 200) << envelope.raw;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);  // answered well before the hold
    auto cmd = envelope.body["command"];
    EXPECT_EQ(cmd["method"], "listSources");
    EXPECT_EQ(cmd["args"], json::array({json::object()}));
    std::string id = cmd["id"];
    EXPECT_TRUE(ds::Ids::isLowerUuid(id));

    auto posted = app.post("result/" + id, okReply({{"sources", json::array()}}));
    ASSERT_EQ(posted.status, 200) << posted.raw;
    auto result = sent.get();
    ASSERT_EQ(result.status, 200) << result.raw;
    EXPECT_EQ(result.body["reply"]["value"], json({{"sources", json::array()}}));

    auto twice = app.post("result/" + id, okReply(1));
    EXPECT_EQ(twice.status, 409);
    EXPECT_EQ(twice.body["error"], "result_already_received");
    EXPECT_EQ(app.post("result/" + ds::Ids::uuid(), okReply(1)).body["error"], "command_not_found");
    EXPECT_EQ(app.post("result/abc", okReply(1)).body["error"], "invalid_command_id");
    // Nothing else is queued: the next poll is empty.
    setPollHold(100);
    EXPECT_EQ(app.post("poll").body, json::object());
}

TEST_F(ProtocolTest, ResultEnvelopesAreCheckedStrictly) {
    FakeApp app = paired();
    Agent agent(base, key);
    auto sent = std::async(std::launch::async,
                           [&] { return agent.send(app.deviceId(), "pressKey", {"Return"}); });
    json cmd = takeCommand(app);
    ASSERT_FALSE(cmd.is_null());
    std::string path = "result/" + cmd["id"].get<std::string>();
    EXPECT_EQ(app.post(path, {{"value", 1}}).body["error"], "invalid_result");  // no meta
    EXPECT_EQ(app.post(path, {{"error", "Nothing to click"}}).body["error"], "invalid_result");
    json noMode = okReply(1);
    noMode["meta"].erase("recordingMode");
    EXPECT_EQ(app.post(path, noMode).body["error"], "invalid_result");
    auto ok = app.post(path, {{"error", "local_method_forbidden: missing ref"}});
    EXPECT_EQ(ok.status, 200) << ok.raw;
    auto result = sent.get();
    EXPECT_EQ(result.body["reply"], json({{"error", "local_method_forbidden: missing ref"}}));
}

TEST_F(ProtocolTest, ACommandDroppedByTheDeviceIsAbandonedWhenItPollsAgain) {
    FakeApp app = paired();
    Agent agent(base, key);
    auto sent =
        std::async(std::launch::async, [&] { return agent.send(app.deviceId(), "screenshot"); });
    json cmd = takeCommand(app);
    ASSERT_FALSE(cmd.is_null());
    app.post("poll");  // a new connection generation polls without answering
    auto result = sent.get();
    EXPECT_EQ(result.status, 502);
    EXPECT_EQ(result.body["error"], "command_abandoned");
    EXPECT_EQ(app.post("result/" + cmd["id"].get<std::string>(), okReply(1)).body["error"],
              "command_not_pending");
}

TEST_F(ProtocolTest, AnUnansweredCommandTimesOutForTheAgentAndIsNeverDeliveredLate) {
    FakeApp app = paired();
    auto result = Agent(base, key).send(app.deviceId(), "screenshot", json::array(), 300);
    EXPECT_EQ(result.status, 504);
    EXPECT_EQ(result.body["error"], "command_timeout");
    EXPECT_EQ(app.post("poll").body, json::object());
}

TEST_F(ProtocolTest, OldAppVersionsAreToldToUpdate) {
    FakeApp earlier = paired();  // paired while its version was still good enough
    auto s = server->settings();
    s.minimumAppVersion = "1.2";
    s.latestAppVersion = "1.4.0";
    server->setSettings(s);
    FakeApp old(base, "1.1.9");
    auto a = old.pair(Agent(base, key).code());
    EXPECT_EQ(a.status, 426);
    EXPECT_EQ(a.body["error"], "app_update_required");
    EXPECT_EQ(a.body["minimumAppVersion"], "1.2");
    EXPECT_EQ(a.body["latestAppVersion"], "1.4.0");
    EXPECT_EQ(FakeApp(base, "1.2.0").pair(Agent(base, key).code()).status, 200);
    EXPECT_EQ(FakeApp(base, "dev").pair(Agent(base, key).code()).status, 200);
    // Numbers longer than any integer type are compared digit by digit.
    EXPECT_EQ(FakeApp(base, "99999999999999999999.0").pair(Agent(base, key).code()).status, 200);
    EXPECT_EQ(FakeApp(base, "1.00000000000000000001").pair(Agent(base, key).code()).status, 426);
    EXPECT_EQ(FakeApp(base, "1.2.000000000000000000000001").pair(Agent(base, key).code()).status,
              200);
    EXPECT_EQ(FakeApp(base, "banana").pair(Agent(base, key).code()).body["error"],
              "invalid_app_version");

    // It may not poll or start a recording any more, but keeps its credential and its uploads.
    FakeApp stale(base, "1.1.9");
    stale.remember(earlier.identity);
    EXPECT_EQ(stale.post("poll").status, 426);
    EXPECT_EQ(stale.post("desktop-recording/begin", {{"requestId", ds::Ids::uuid()}}).status, 426);
    EXPECT_EQ(stale.refresh().status, 200);
    auto upload = stale.post("desktop-upload/" + ds::Ids::uuid() + "/begin",
                             {{"bytes", 1},
                              {"sha256", ds::Digest::sha256("x")},
                              {"media", {{"width", 1}, {"height", 1}, {"durationMs", 1}}}});
    EXPECT_EQ(upload.body["error"], "capture_not_found");  // judged, not refused as too old

    httplib::Client c(base);
    auto v = toAnswer(c.Get("/local-browser/version"));
    EXPECT_EQ(v.status, 200);
    EXPECT_EQ(v.body, json({{"minimumAppVersion", "1.2"}, {"latestAppVersion", "1.4.0"}}));
    auto m = toAnswer(c.Get("/downloads/pavix-linux.json"));
    EXPECT_EQ(m.status, 200);
    EXPECT_EQ(m.body, json({{"latest", {{"version", "1.4.0"}}}}));
}

TEST_F(ProtocolTest, EveryRefusalIsJsonWithAnErrorCode) {
    FakeApp app = paired();
    httplib::Client c(base);
    c.set_follow_location(false);
    auto check = [](const Answer& a, int status, const std::string& code) {
        EXPECT_EQ(a.status, status) << a.raw;
        EXPECT_EQ(a.body.value("error", ""), code) << a.raw;
    };
    check(toAnswer(c.Get("/nowhere")), 404, "not_found");
    check(toAnswer(c.Post("/local-browser/nowhere", app.headers(), "{}", "application/json")), 404,
          "not_found");
    check(toAnswer(c.Post("/local-browser/", app.headers(), "{}", "application/json")), 404,
          "not_found");
    check(toAnswer(c.Get("/local-browser/poll")), 405, "method_not_allowed");
    check(toAnswer(c.Post("/local-browser/poll", app.headers(), "{}", "text/plain")), 415,
          "unsupported_media_type");
    check(app.post("poll", json::array()), 400, "invalid_json");
    check(toAnswer(c.Post("/local-browser/poll", app.headers(), "{nope", "application/json")), 400,
          "invalid_json");
    check(app.post("poll", {{"extra", 1}}), 400, "unexpected_field");
    check(toAnswer(c.Post("/local-browser/poll", {{"Authorization", "Bearer " + app.token}}, "{}",
                          "application/json")),
          400, "app_version_missing");
    FakeApp anonymous(base);
    check(anonymous.post("poll"), 401, "unauthorized");
    anonymous.token = "pvx_at_forged";
    check(anonymous.post("poll"), 401, "device_credentials_expired");
    check(app.post("pair", {{"code", 5}, {"persistent", true}, {"deviceName", "x"}}), 400,
          "invalid_request");
    check(app.post("pair", {{"code", "X"}, {"deviceName", "x"}}), 400, "invalid_request");
    check(app.post("desktop-recording/begin", {{"requestId", "not-a-uuid"}}), 400,
          "invalid_request");
    check(app.post("diagnostics",
                   {{"event", "e"}, {"code", "c"}, {"appVersion", "1"}, {"message", "user text"}}),
          400, "unexpected_field");
    auto big = toAnswer(c.Post("/local-browser/poll", app.headers(), std::string(9 << 20, ' '),
                               "application/json"));
    check(big, 413, "payload_too_large");
}

TEST_F(ProtocolTest, DiagnosticsAreRecordedForTheAgent) {
    FakeApp app = paired();
    auto a = app.post("diagnostics",
                      {{"event", "pair_failed"}, {"code", "http_502"}, {"appVersion", "0.1.0"}});
    ASSERT_EQ(a.status, 200) << a.raw;
    auto list = Agent(base, key).get("/agent/diagnostics").body["diagnostics"];
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["event"], "pair_failed");
    EXPECT_EQ(list[0]["code"], "http_502");
    EXPECT_EQ(list[0]["deviceId"], app.deviceId());
}

class CaptureLimit : public ServiceTest {
    void configure(ds::Options& o) override { o.captureMs = 90000; }
};

TEST_F(CaptureLimit, RecordingBeginIssuesOneCaptureIdPerRequest) {
    FakeApp app = paired();
    std::string request = ds::Ids::uuid();
    auto a = app.post("desktop-recording/begin", {{"requestId", request}});
    ASSERT_EQ(a.status, 200) << a.raw;
    EXPECT_TRUE(ds::Ids::isLowerUuid(a.body["id"].get<std::string>()));
    EXPECT_EQ(a.body["captureMs"], 90000);
    EXPECT_EQ(app.post("desktop-recording/begin", {{"requestId", request}}).body["id"],
              a.body["id"]);
    EXPECT_NE(app.post("desktop-recording/begin", {{"requestId", ds::Ids::uuid()}}).body["id"],
              a.body["id"]);
    EXPECT_EQ(app.post("desktop-recording/begin", {{"requestId", upper(ds::Ids::uuid())}}).status,
              400);
}

TEST_F(ProtocolTest, DisabledSessionsRefuseNewOnesButNotUploads) {
    FakeApp app = paired();
    auto s = server->settings();
    s.sessionsDisabled = true;
    server->setSettings(s);
    auto a = FakeApp(base).pair(Agent(base, key).code());
    EXPECT_EQ(a.status, 503);
    EXPECT_EQ(a.body["error"], "desktop_sessions_disabled");
    EXPECT_EQ(app.post("device/resume").body["error"], "desktop_sessions_disabled");
}

}  // namespace
}  // namespace devtest
