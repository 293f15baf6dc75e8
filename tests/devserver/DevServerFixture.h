#pragma once

// Shared helpers of the devserver tests: a service in-process on a free port with its own data
// directory, a fake app that speaks the service interface, and the agent API.
#include "devserver/Clock.h"
#include "devserver/DevServer.h"
#include "devserver/Digest.h"
#include "devserver/Ids.h"
#include "devserver/UrlCodec.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace devtest {

using json = nlohmann::json;
namespace ds = pavix::devserver;

struct TempDir {
    std::filesystem::path path;
    TempDir() {
        char tmpl[] = "/tmp/pavix-devserver-test-XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
};

struct Answer {
    int status = 0;  // 0: no reply (connection dropped, time-out)
    json body;
    std::string raw;
};

inline Answer toAnswer(const httplib::Result& r) {
    Answer a;
    if (!r) {
        a.raw = "no reply: " + httplib::to_string(r.error());
        return a;
    }
    a.status = r->status;
    a.raw = r->body;
    a.body = json::parse(r->body, nullptr, false);
    return a;
}

// The app's side: a client that sends what every call of the app carries.
class FakeApp {
  public:
    FakeApp(std::string base, std::string version = "0.1.0")
        : base_(std::move(base)), version_(std::move(version)) {}

    std::string token;
    json identity;

    httplib::Headers headers() const {
        httplib::Headers h{{"X-Pavix-App-Version", version_}};
        if (!token.empty())
            h.emplace("Authorization", "Bearer " + token);
        return h;
    }
    httplib::Client client() const {
        httplib::Client c(base_);
        c.set_read_timeout(30);
        c.set_connection_timeout(5);
        return c;
    }
    Answer post(const std::string& path, const json& body = json::object()) const {
        return toAnswer(
            client().Post("/local-browser/" + path, headers(), body.dump(), "application/json"));
    }
    Answer chunk(const std::string& id, int64_t offset, const std::string& bytes) const {
        auto c = client();
        auto h = headers();
        h.emplace("X-Pavix-Offset", std::to_string(offset));
        h.emplace("Expect", "");
        return toAnswer(c.Post("/local-browser/desktop-upload/" + id + "/chunk", h, bytes,
                               "application/octet-stream"));
    }
    // Pairs with `code` and keeps the credential as the app's pairing does.
    Answer pair(const std::string& code, const std::string& name = "test-box") {
        auto a = post("pair", {{"code", code}, {"persistent", true}, {"deviceName", name}});
        if (a.status == 200)
            remember(a.body);
        return a;
    }
    Answer refresh() {
        auto a = post("device/refresh", {{"refreshToken", identity.value("refreshToken", "")}});
        if (a.status == 200)
            remember(a.body);
        return a;
    }
    void remember(const json& reply) {
        identity = reply;
        token = reply.value("accessToken", "");
    }
    std::string deviceId() const { return identity.value("deviceId", ""); }

  private:
    std::string base_;
    std::string version_;
};

class Agent {
  public:
    Agent(std::string base, std::string key) : base_(std::move(base)), key_(std::move(key)) {}
    httplib::Client client(int readTimeoutS = 30) const {
        httplib::Client c(base_);
        c.set_default_headers({{"X-Pavix-Agent-Key", key_}});
        c.set_read_timeout(readTimeoutS);
        return c;
    }
    Answer get(const std::string& path) const { return toAnswer(client().Get(path)); }
    Answer post(const std::string& path, const json& body = json::object(),
                int readTimeoutS = 30) const {
        return toAnswer(client(readTimeoutS).Post(path, body.dump(), "application/json"));
    }
    std::string code() const { return post("/agent/pairing-codes").body.value("code", ""); }
    // Sends a command and waits for its result.
    Answer send(const std::string& deviceId, const std::string& method, json args = json::array(),
                int timeoutMs = 5000) const {
        return post("/agent/devices/" + deviceId + "/commands",
                    {{"method", method}, {"args", args}, {"timeoutMs", timeoutMs}},
                    timeoutMs / 1000 + 10);
    }

  private:
    std::string base_;
    std::string key_;
};

// A successful reply envelope as the app posts it.
inline json okReply(json value) {
    return {{"value", std::move(value)},
            {"meta",
             {{"captureViewport", {{"width", 1280}, {"height", 720}}},
              {"recordingMode", "screencast"},
              {"pointerTrail", json::array()},
              {"identitySightings", json::array()}}}};
}

// What desktop-upload/<id>/begin announces for `data`.
inline json announce(const std::string& data,
                     json media = {{"width", 2}, {"height", 2}, {"durationMs", 1}}) {
    return {{"bytes", data.size()}, {"sha256", ds::Digest::sha256(data)}, {"media", media}};
}

// `text` in capitals, as a client that does not keep ids in their lower-case form sends them.
inline std::string upper(std::string text) {
    for (auto& ch : text)
        ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    return text;
}

class ServiceTest : public ::testing::Test {
  protected:
    void SetUp() override { start(); }
    void TearDown() override { server.reset(); }

    virtual void configure(ds::Options&) {}

    void start() {
        ds::Options o;
        o.port = 0;
        o.dataDir = dir.path.string();
        o.pollHoldMs = 300;
        o.printCode = false;
        configure(o);
        server = std::make_unique<ds::DevServer>(o);
        server->start();
        base = server->baseUrl();
        key = server->agentKey();
    }

    void setPollHold(int ms) {
        auto s = server->settings();
        s.pollHoldMs = ms;
        server->setSettings(s);
    }

    // A fake app paired with a fresh code.
    FakeApp paired(const std::string& name = "test-box") {
        FakeApp app(base);
        auto a = app.pair(Agent(base, key).code(), name);
        EXPECT_EQ(a.status, 200) << a.raw;
        return app;
    }

    TempDir dir;
    std::unique_ptr<ds::DevServer> server;
    std::string base;
    std::string key;  // the agent key
};

}  // namespace devtest
