#pragma once

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "devserver/Digest.h"
#include "support/ScriptedService.h"
#include "support/TestServer.h"

namespace pavix::test {

// The recording and upload side of the service, scripted over a TestServer: "begin" of a
// recording issues the next scripted capture id, and each expected upload keeps the bytes it
// accepted so a test can compare them with the local file. Chunk faults are scripted one per
// chunk request, in order.
class ScriptedUploads {
  public:
    enum class Fault {
        none,
        drop,          // the connection closes without a reply
        badGateway,    // 502, bytes not kept
        receiptBelow,  // bytes kept, "received" answers one byte less than held
        receiptAbove,  // bytes kept, "received" answers one byte more than the size
        conflict,      // 409 as for a wrong offset, bytes not kept
    };
    struct Upload {
        std::int64_t bytes = 0;
        std::string sha256;
        nlohmann::json media;
        std::string data;  // accepted so far
        int begins = 0;
        bool completed = false;
        bool published = false;
    };

    explicit ScriptedUploads(TestServer& server) : server_(server) {}

    // The next "desktop-recording/begin" answers `id` (and "captureMs" when given); the upload
    // paths of `id` are served from then on.
    void issue(const std::string& id, std::optional<nlohmann::json> captureMs = std::nullopt) {
        server_.on(ScriptedService::path("desktop-recording/begin"),
                   [id, captureMs](const httplib::Request&, httplib::Response& response) {
                       nlohmann::json body = {{"id", id}};
                       if (captureMs) {
                           body["captureMs"] = *captureMs;
                       }
                       answer(response, 200, body);
                   });
        expect(id);
    }
    // Serves the upload paths of `id` (for ids the agent brings itself).
    void expect(const std::string& id) {
        auto base = ScriptedService::path("desktop-upload/" + id + "/");
        server_.on(base + "begin",
                   [this, id](const httplib::Request& request, httplib::Response& response) {
                       auto body = nlohmann::json::parse(request.body);
                       std::function<void()> hook;
                       {
                           std::lock_guard lock(mutex_);
                           hook = onBegin_;
                       }
                       if (hook) {
                           hook();
                       }
                       std::lock_guard lock(mutex_);
                       auto& upload = uploads_[id];
                       upload.bytes = body.at("bytes").get<std::int64_t>();
                       upload.sha256 = body.at("sha256").get<std::string>();
                       upload.media = body.at("media");
                       ++upload.begins;
                       answer(response, 200, {{"received", upload.data.size()}});
                   });
        server_.on(base + "chunk",
                   [this, id](const httplib::Request& request, httplib::Response& response) {
                       chunk(id, request, response);
                   });
        server_.on(base + "complete", [this, id](const httplib::Request&, httplib::Response& r) {
            std::lock_guard lock(mutex_);
            auto& upload = uploads_[id];
            upload.completed = std::int64_t(upload.data.size()) == upload.bytes &&
                               devserver::Digest::sha256(upload.data) == upload.sha256;
            answer(r, upload.completed ? 200 : 422,
                   upload.completed ? nlohmann::json::object()
                                    : nlohmann::json{{"error", "desktop_upload_digest_mismatch"}});
        });
        server_.on(base + "publish", [this, id](const httplib::Request&, httplib::Response& r) {
            std::lock_guard lock(mutex_);
            auto& upload = uploads_[id];
            upload.published = upload.completed;
            answer(r, upload.completed ? 200 : 409,
                   upload.completed ? nlohmann::json::object()
                                    : nlohmann::json{{"error", "desktop_upload_incomplete"}});
        });
    }
    // Pre-loads bytes as if an earlier attempt had sent them.
    void hold(const std::string& id, std::string data) {
        std::lock_guard lock(mutex_);
        uploads_[id].data = std::move(data);
    }
    void fault(Fault fault) {
        std::lock_guard lock(mutex_);
        faults_.push_back(fault);
    }
    // Runs on the server's thread when an upload begins, before it is answered.
    void onBegin(std::function<void()> hook) {
        std::lock_guard lock(mutex_);
        onBegin_ = std::move(hook);
    }

    std::optional<Upload> upload(const std::string& id) const {
        std::lock_guard lock(mutex_);
        auto found = uploads_.find(id);
        return found == uploads_.end() ? std::nullopt : std::optional(found->second);
    }

  private:
    static void answer(httplib::Response& response, int status, const nlohmann::json& body) {
        response.status = status;
        response.set_content(body.dump(), "application/json");
    }

    void chunk(const std::string& id, const httplib::Request& request,
               httplib::Response& response) {
        std::lock_guard lock(mutex_);
        auto& upload = uploads_[id];
        auto fault = Fault::none;
        if (!faults_.empty()) {
            fault = faults_.front();
            faults_.pop_front();
        }
        auto offset = std::stoll(request.get_header_value("X-Pavix-Offset"));
        if (fault == Fault::conflict || offset != std::int64_t(upload.data.size())) {
            answer(response, 409,
                   {{"error", "desktop_upload_offset"}, {"received", upload.data.size()}});
        } else if (fault == Fault::drop) {
            TestServer::truncate(response, 100, 0);
        } else if (fault == Fault::badGateway) {
            response.status = 502;
            response.set_content("Bad Gateway", "text/plain");
        } else {
            upload.data += request.body;
            std::int64_t received = upload.data.size();
            if (fault == Fault::receiptBelow) {
                received -= 1;
            } else if (fault == Fault::receiptAbove) {
                received = upload.bytes + 1;
            }
            answer(response, 200, {{"received", received}});
        }
    }

    TestServer& server_;
    mutable std::mutex mutex_;
    std::map<std::string, Upload> uploads_;
    std::deque<Fault> faults_;
    std::function<void()> onBegin_;
};

}  // namespace pavix::test
