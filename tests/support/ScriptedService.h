#pragma once

#include <condition_variable>
#include <deque>
#include <nlohmann/json.hpp>

#include "support/TestServer.h"

namespace pavix::test {

// The service side of pairing and the command loop, scripted over a TestServer: pairing
// answers a fresh credential, refresh rotates it, the poll hands out queued commands (or {}
// after a short hold) and results are collected.
class ScriptedService {
  public:
    explicit ScriptedService(TestServer& server);
    ~ScriptedService();

    static std::string path(const std::string& name) { return "/local-browser/" + name; }

    // Queues one poll reply (normally {"command": ...}).
    void queue(nlohmann::json reply);
    // Queues a command with a fresh id and returns the id.
    std::string queueCommand(const std::string& method,
                             nlohmann::json args = nlohmann::json::array());
    // The result bodies posted so far, by command id.
    std::map<std::string, nlohmann::json> results() const;
    std::optional<nlohmann::json> result(const std::string& id) const;

    // The next `count` polls answer `status` at once, with no command.
    void failPolls(int count, int status);
    // The credential handed out by the last pair or refresh.
    nlohmann::json lastCredential() const;
    // Expiry of the access tokens handed out, milliseconds since 1970.
    double accessExpiresAt = 4'102'444'800'000.0;  // 2100-01-01
    // How long an empty poll is held before {} is answered.
    std::chrono::milliseconds pollHold{100};

  private:
    nlohmann::json credential(const std::string& deviceId);

    TestServer& server_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<nlohmann::json> queued_;
    std::map<std::string, nlohmann::json> results_;
    nlohmann::json last_;
    int serial_ = 0;
    int failingPolls_ = 0;
    int pollStatus_ = 502;
    bool stopping_ = false;
};

}  // namespace pavix::test
