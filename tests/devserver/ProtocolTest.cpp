// The session protocol (pairing, credentials, command loop, version check) against the service
// in-process, and several devices long-polling at once: each gets its own commands and nobody
// else's.
#include "DevServerFixture.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
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

TEST_F(ProtocolTest, PairingAnswersTheIdentityTheCodeWorksOnceAndTheAgentSeesTheDevice) {
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

    auto reported = app.post(
        "diagnostics", {{"event", "pair_failed"}, {"code", "http_502"}, {"appVersion", "0.1.0"}});
    ASSERT_EQ(reported.status, 200) << reported.raw;
    auto list = agent.get("/agent/diagnostics").body["diagnostics"];
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["event"], "pair_failed");
    EXPECT_EQ(list[0]["code"], "http_502");
    EXPECT_EQ(list[0]["deviceId"], app.deviceId());
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
    // Past the grace, the token just replaced is refused like any other, even before the new
    // pair is used.
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(app.post("device/refresh", {{"refreshToken", replaced["refreshToken"]}}).status, 401);
    EXPECT_EQ(app.post("poll").status, 200);
}

TEST_F(ProtocolTest, RefreshRotatesBothTokensAndRetiresTheOldOnesAndTheAgentCanExpireThem) {
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

    // A device whose refresh replies were lost, here twice in a row, holds only the token it
    // first presented: it may rotate again, which retires the pairs it never saw.
    FakeApp old(base);
    auto lostAgain = old.post("device/refresh", {{"refreshToken", before["refreshToken"]}});
    ASSERT_EQ(lostAgain.status, 200);
    FakeApp lostReply(base);
    lostReply.remember(before);
    ASSERT_EQ(lostReply.refresh().status, 200);
    for (const auto& earlier : {before, r.body, lostAgain.body}) {
        old.token = earlier["accessToken"];
        EXPECT_EQ(old.post("poll").status, 401);
    }
    EXPECT_EQ(app.post("poll").status, 401);
    EXPECT_EQ(lostReply.post("poll").status, 200);
    // Once the device has used its new pair, a late request with the token it was rotated from
    // is refused, and so is any earlier token, also after the device has rotated again.
    for (int rotated = 0; rotated < 2; ++rotated) {
        for (const auto& earlier : {before, r.body, lostAgain.body}) {
            auto reuse = old.post("device/refresh", {{"refreshToken", earlier["refreshToken"]}});
            EXPECT_EQ(reuse.status, 401);
            EXPECT_EQ(reuse.body["error"], "device_credentials_expired");
        }
        EXPECT_EQ(old.post("device/refresh", {{"refreshToken", "pvx_rt_unknown"}}).status, 401);
        EXPECT_EQ(lostReply.post("poll").status, 200);
        if (rotated == 0) {
            ASSERT_EQ(lostReply.refresh().status, 200);
        }
    }
    // The agent can expire the access token at any time.
    ASSERT_EQ(Agent(base, key).post("/agent/devices/" + app.deviceId() + "/expire-access").status,
              200);
    auto expired = lostReply.post("poll");
    EXPECT_EQ(expired.status, 401);
    EXPECT_EQ(expired.body["error"], "device_credentials_expired");
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

TEST_F(ProtocolTest, DisconnectEndsTheSessionEvenInAHeldPollAndResumeOpensANewOneUnlessOff) {
    FakeApp app = paired();
    ASSERT_EQ(app.post("disconnect").status, 200);
    auto a = app.post("poll");
    EXPECT_EQ(a.status, 410);
    EXPECT_EQ(a.body["error"], "local_browser_disconnected");
    ASSERT_EQ(app.refresh().status, 200);
    auto resumed = app.post("device/resume");
    ASSERT_EQ(resumed.status, 200) << resumed.raw;
    EXPECT_EQ(app.post("poll").status, 200);

    // The agent's disconnect ends a poll it holds at once.
    setPollHold(10000);
    auto start = std::chrono::steady_clock::now();
    auto held = std::async(std::launch::async, [&] { return app.post("poll"); });
    std::this_thread::sleep_for(200ms);
    Agent(base, key).post("/agent/devices/" + app.deviceId() + "/disconnect");
    EXPECT_EQ(held.get().body["error"], "local_browser_disconnected");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);

    // With sessions turned off, neither a new pairing nor a resume opens one.
    auto s = server->settings();
    s.sessionsDisabled = true;
    server->setSettings(s);
    auto refused = FakeApp(base).pair(Agent(base, key).code());
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.body["error"], "desktop_sessions_disabled");
    EXPECT_EQ(app.post("device/resume").body["error"], "desktop_sessions_disabled");
}

// A command reaches a held poll at once and ends in one result from its device, or is abandoned
// when the device polls again without answering, or times out for the agent.
TEST_F(ProtocolTest, ACommandIsAnsweredOnceOrAbandonedOrTimesOut) {
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
    setPollHold(300);
    auto cmd = envelope.body["command"];
    EXPECT_EQ(cmd["method"], "listSources");
    EXPECT_EQ(cmd["args"], json::array({json::object()}));
    std::string id = cmd["id"];
    EXPECT_TRUE(ds::Ids::isLowerUuid(id));

    std::string path = "result/" + id;
    EXPECT_EQ(app.post(path, {{"value", 1}}).body["error"], "invalid_result");  // no meta
    EXPECT_EQ(app.post(path, {{"error", "Nothing to click"}}).body["error"], "invalid_result");
    json noMode = okReply(1);
    noMode["meta"].erase("recordingMode");
    EXPECT_EQ(app.post(path, noMode).body["error"], "invalid_result");
    auto posted = app.post(path, okReply({{"sources", json::array()}}));
    ASSERT_EQ(posted.status, 200) << posted.raw;
    auto result = sent.get();
    ASSERT_EQ(result.status, 200) << result.raw;
    EXPECT_EQ(result.body["reply"]["value"], json({{"sources", json::array()}}));
    auto twice = app.post(path, okReply(1));
    EXPECT_EQ(twice.status, 409);
    EXPECT_EQ(twice.body["error"], "result_already_received");
    EXPECT_EQ(app.post("result/" + ds::Ids::uuid(), okReply(1)).body["error"], "command_not_found");
    EXPECT_EQ(app.post("result/abc", okReply(1)).body["error"], "invalid_command_id");

    // A device's refusal is an error envelope, handed to the agent as it came.
    sent = std::async(std::launch::async,
                      [&] { return agent.send(app.deviceId(), "pressKey", {"Return"}); });
    cmd = takeCommand(app);
    ASSERT_FALSE(cmd.is_null());
    auto refusal = app.post("result/" + cmd["id"].get<std::string>(),
                            {{"error", "local_method_forbidden: missing ref"}});
    EXPECT_EQ(refusal.status, 200) << refusal.raw;
    EXPECT_EQ(sent.get().body["reply"], json({{"error", "local_method_forbidden: missing ref"}}));

    sent = std::async(std::launch::async, [&] { return agent.send(app.deviceId(), "screenshot"); });
    cmd = takeCommand(app);
    ASSERT_FALSE(cmd.is_null());
    app.post("poll");  // a new connection generation polls without answering
    auto abandoned = sent.get();
    EXPECT_EQ(abandoned.status, 502);
    EXPECT_EQ(abandoned.body["error"], "command_abandoned");
    EXPECT_EQ(app.post("result/" + cmd["id"].get<std::string>(), okReply(1)).body["error"],
              "command_not_pending");

    // One nobody fetched is never delivered late.
    auto late = agent.send(app.deviceId(), "screenshot", json::array(), 300);
    EXPECT_EQ(late.status, 504);
    EXPECT_EQ(late.body["error"], "command_timeout");
    EXPECT_EQ(app.post("poll").body, json::object());
}

TEST_F(ProtocolTest, OldAppVersionsAreToldToUpdate) {
    FakeApp earlier = paired();  // paired while its version was still good enough
    auto s = server->settings();
    s.minimumAppVersion = "1.2";
    s.latestAppVersion = "1.4.0";
    server->setSettings(s);
    auto pairAs = [&](const std::string& version) {
        return FakeApp(base, version).pair(Agent(base, key).code());
    };
    auto a = pairAs("1.1.9");
    EXPECT_EQ(a.status, 426);
    EXPECT_EQ(a.body["error"], "app_update_required");
    EXPECT_EQ(a.body["minimumAppVersion"], "1.2");
    EXPECT_EQ(a.body["latestAppVersion"], "1.4.0");
    EXPECT_EQ(pairAs("1.2.0").status, 200);
    EXPECT_EQ(pairAs("dev").status, 200);
    // Numbers longer than any integer type are compared digit by digit.
    EXPECT_EQ(pairAs("99999999999999999999.0").status, 200);
    EXPECT_EQ(pairAs("1.00000000000000000001").status, 426);
    EXPECT_EQ(pairAs("1.2.000000000000000000000001").status, 200);
    EXPECT_EQ(pairAs("banana").body["error"], "invalid_app_version");

    // It may not poll or start a recording any more, but keeps its credential and its uploads.
    FakeApp stale(base, "1.1.9");
    stale.remember(earlier.identity);
    EXPECT_EQ(stale.post("poll").status, 426);
    EXPECT_EQ(stale.post("desktop-recording/begin", {{"requestId", ds::Ids::uuid()}}).status, 426);
    EXPECT_EQ(stale.refresh().status, 200);
    auto upload = stale.post("desktop-upload/" + ds::Ids::uuid() + "/begin", announce("x"));
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
    auto raw = [&](const std::string& path, const std::string& body,
                   const char* type = "application/json") {
        return toAnswer(c.Post("/local-browser/" + path, app.headers(), body, type));
    };
    check(toAnswer(c.Get("/nowhere")), 404, "not_found");
    check(raw("nowhere", "{}"), 404, "not_found");
    check(raw("", "{}"), 404, "not_found");
    check(toAnswer(c.Get("/local-browser/poll")), 405, "method_not_allowed");
    check(raw("poll", "{}", "text/plain"), 415, "unsupported_media_type");
    check(app.post("poll", json::array()), 400, "invalid_json");
    check(raw("poll", "{nope"), 400, "invalid_json");
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
    check(raw("poll", std::string(9 << 20, ' ')), 413, "payload_too_large");
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

class MultiDeviceTest : public ServiceTest {
    void configure(ds::Options& o) override { o.pollHoldMs = 2000; }
};

TEST_F(MultiDeviceTest, EachDeviceGetsOnlyItsOwnCommands) {
    constexpr int kDevices = 4, kCommands = 5;
    std::vector<FakeApp> apps;
    for (int i = 0; i < kDevices; ++i)
        apps.push_back(paired("box-" + std::to_string(i)));

    std::atomic<bool> stop{false};
    std::mutex seenMutex;
    std::map<std::string, std::vector<std::string>> seen;  // device -> methods it received
    std::vector<std::thread> loops;
    for (auto& app : apps) {
        loops.emplace_back([&, app] {
            // The device's command loop: poll, answer with who it is, poll again.
            while (!stop) {
                auto p = app.post("poll");
                if (p.status != 200 || !p.body.contains("command"))
                    continue;
                auto cmd = p.body["command"];
                {
                    std::lock_guard lock(seenMutex);
                    seen[app.deviceId()].push_back(cmd["method"]);
                }
                app.post("result/" + cmd["id"].get<std::string>(),
                         okReply({{"device", app.deviceId()}, {"args", cmd["args"]}}));
            }
        });
    }
    // Wait until every device is held in a poll.
    Agent agent(base, key);
    for (int i = 0; i < 100; ++i) {
        auto list = agent.get("/agent/devices").body["devices"];
        int polling = 0;
        for (auto& d : list)
            polling += d["polling"].get<bool>() ? 1 : 0;
        if (polling == kDevices)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    std::vector<std::future<std::pair<std::string, Answer>>> sends;
    for (int n = 0; n < kCommands; ++n) {
        for (auto& app : apps) {
            std::string device = app.deviceId();
            sends.push_back(std::async(std::launch::async, [&agent, device, n] {
                return std::make_pair(device, agent.send(device, "method-" + std::to_string(n),
                                                         json::array({n}), 10000));
            }));
        }
    }
    for (auto& f : sends) {
        auto [device, answer] = f.get();
        EXPECT_EQ(answer.status, 200) << answer.raw;  // no ASSERT: the loops must be joined
        EXPECT_EQ(answer.body["reply"]["value"]["device"], device);
    }
    stop = true;
    for (auto& t : loops)
        t.join();
    for (auto& app : apps) {
        auto& methods = seen[app.deviceId()];
        EXPECT_EQ(methods.size(), static_cast<size_t>(kCommands));
        std::sort(methods.begin(), methods.end());
        for (int n = 0; n < kCommands; ++n)
            EXPECT_EQ(methods[n], "method-" + std::to_string(n));
    }
}

}  // namespace
}  // namespace devtest
