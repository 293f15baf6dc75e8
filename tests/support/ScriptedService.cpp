#include "support/ScriptedService.h"

#include "core/runtime/Uuid.h"
#include "devserver/SocketControl.h"

namespace pavix::test {

ScriptedService::ScriptedService(TestServer& server) : server_(server) {
    auto json = [](httplib::Response& response, const nlohmann::json& body, int status = 200) {
        response.status = status;
        response.set_content(body.dump(), "application/json");
    };
    server_.on(path("pair"), [this, json](const httplib::Request&, httplib::Response& response) {
        std::lock_guard lock(mutex_);
        auto reply = credential("device-1");
        reply["token"] = reply["accessToken"];
        reply["mode"] = "desktop";
        json(response, reply);
    });
    server_.on(path("device/refresh"),
               [this, json](const httplib::Request&, httplib::Response& response) {
                   std::lock_guard lock(mutex_);
                   json(response, credential("device-1"));
               });
    for (const char* name : {"device/resume", "disconnect", "device/revoke", "diagnostics"}) {
        server_.reply(path(name), 200, "{}");
    }
    server_.on(
        path("poll"), [this, json](const httplib::Request& request, httplib::Response& response) {
            std::unique_lock lock(mutex_);
            if (failingPolls_ > 0) {
                --failingPolls_;
                json(response, {{"error", "unavailable"}}, pollStatus_);
                return;
            }
            // A poll the client gave up on (its session ended) is still held here; like the real
            // service, it must not take a command that the next session's poll would get.
            const int connection = devserver::SocketControl::find(request);
            changed_.wait_for(lock, pollHold, [this] { return !queued_.empty() || stopping_; });
            if (queued_.empty() || !devserver::SocketControl::alive(connection)) {
                json(response, nlohmann::json::object());
                return;
            }
            auto next = queued_.front();
            queued_.pop_front();
            json(response, next);
        });
}

ScriptedService::~ScriptedService() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
}

nlohmann::json ScriptedService::credential(const std::string& deviceId) {
    ++serial_;
    last_ = {{"deviceId", deviceId},
             {"accessToken", "access-" + std::to_string(serial_)},
             {"accessExpiresAt", accessExpiresAt},
             {"refreshToken", "refresh-" + std::to_string(serial_)},
             {"refreshExpiresAt", accessExpiresAt + 86'400'000.0}};
    return last_;
}

void ScriptedService::failPolls(int count, int status) {
    std::lock_guard lock(mutex_);
    failingPolls_ = count;
    pollStatus_ = status;
}

nlohmann::json ScriptedService::lastCredential() const {
    std::lock_guard lock(mutex_);
    return last_;
}

void ScriptedService::queue(nlohmann::json reply) {
    {
        std::lock_guard lock(mutex_);
        queued_.push_back(std::move(reply));
    }
    changed_.notify_all();
}

std::string ScriptedService::queueCommand(const std::string& method, nlohmann::json args) {
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

std::map<std::string, nlohmann::json> ScriptedService::results() const {
    std::lock_guard lock(mutex_);
    return results_;
}

std::optional<nlohmann::json> ScriptedService::result(const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto found = results_.find(id);
    return found == results_.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace pavix::test
