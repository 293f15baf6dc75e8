#pragma once

#include <condition_variable>
#include <deque>
#include <nlohmann/json.hpp>

#include "core/runtime/Uuid.h"
#include "devserver/SocketControl.h"
#include "support/TestServer.h"

namespace pavix::test {

// The service side of pairing and the command loop, scripted over a TestServer: pairing
// answers a fresh credential, refresh rotates it, the poll hands out queued commands (or {}
// after a short hold) and results are collected.
class ScriptedService {
  public:
    explicit ScriptedService(TestServer& server) : server_(server) {
        server_.on(path("pair"), [this](const httplib::Request&, httplib::Response& response) {
            std::lock_guard lock(mutex_);
            auto reply = credential();
            reply["token"] = reply["accessToken"];
            reply["mode"] = "desktop";
            answer(response, reply);
        });
        server_.on(path("device/refresh"),
                   [this](const httplib::Request&, httplib::Response& response) {
                       std::lock_guard lock(mutex_);
                       answer(response, credential());
                   });
        for (const char* name : {"device/resume", "disconnect", "device/revoke", "diagnostics"}) {
            server_.reply(path(name), 200, "{}");
        }
        server_.on(
            path("poll"), [this](const httplib::Request& request, httplib::Response& response) {
                std::unique_lock lock(mutex_);
                if (failingPolls_ > 0) {
                    --failingPolls_;
                    answer(response, {{"error", "unavailable"}}, pollStatus_);
                    return;
                }
                // A poll the client gave up on (its session ended) is still held here; like the
                // real service, it must not take a command that the next session's poll would get.
                const int connection = devserver::SocketControl::find(request);
                changed_.wait_for(lock, pollHold, [this] { return !queued_.empty() || stopping_; });
                if (queued_.empty() || !devserver::SocketControl::alive(connection)) {
                    answer(response, nlohmann::json::object());
                    return;
                }
                answer(response, queued_.front());
                queued_.pop_front();
            });
    }
    ~ScriptedService() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
    }

    static std::string path(const std::string& name) { return "/local-browser/" + name; }

    // Queues one poll reply (normally {"command": ...}).
    void queue(nlohmann::json reply) {
        {
            std::lock_guard lock(mutex_);
            queued_.push_back(std::move(reply));
        }
        changed_.notify_all();
    }
    // Queues a command with a fresh id and returns the id.
    std::string queueCommand(const std::string& method,
                             nlohmann::json args = nlohmann::json::array()) {
        auto id = Uuid::make();
        server_.on(path("result/" + id),
                   [this, id](const httplib::Request& request, httplib::Response& response) {
                       {
                           std::lock_guard lock(mutex_);
                           results_[id] = nlohmann::json::parse(request.body, nullptr, false);
                       }
                       response.set_content("{}", "application/json");
                   });
        queue({{"command", {{"id", id}, {"method", method}, {"args", std::move(args)}}}});
        return id;
    }
    // The result bodies posted so far, by command id.
    std::map<std::string, nlohmann::json> results() const {
        std::lock_guard lock(mutex_);
        return results_;
    }
    std::optional<nlohmann::json> result(const std::string& id) const {
        std::lock_guard lock(mutex_);
        auto found = results_.find(id);
        return found == results_.end() ? std::nullopt : std::optional(found->second);
    }

    // The next `count` polls answer `status` at once, with no command.
    void failPolls(int count, int status) {
        std::lock_guard lock(mutex_);
        failingPolls_ = count;
        pollStatus_ = status;
    }
    // The credential handed out by the last pair or refresh.
    nlohmann::json lastCredential() const {
        std::lock_guard lock(mutex_);
        return last_;
    }
    // Expiry of the access tokens handed out, milliseconds since 1970.
    double accessExpiresAt = 4'102'444'800'000.0;  // 2100-01-01
    // How long an empty poll is held before {} is answered.
    std::chrono::milliseconds pollHold{100};

  private:
    static void answer(httplib::Response& response, const nlohmann::json& body, int status = 200) {
        response.status = status;
        response.set_content(body.dump(), "application/json");
    }
    nlohmann::json credential() {
        ++serial_;
        last_ = {{"deviceId", "device-1"},
                 {"accessToken", "access-" + std::to_string(serial_)},
                 {"accessExpiresAt", accessExpiresAt},
                 {"refreshToken", "refresh-" + std::to_string(serial_)},
                 {"refreshExpiresAt", accessExpiresAt + 86'400'000.0}};
        return last_;
    }

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
