#include "support/ScriptedUploads.h"

#include <openssl/evp.h>

#include "support/ScriptedService.h"

namespace pavix::test {
namespace {

std::string sha256(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < length; ++i) {
        out += digits[digest[i] >> 4];
        out += digits[digest[i] & 15];
    }
    return out;
}

void answer(httplib::Response& response, int status, const nlohmann::json& body) {
    response.status = status;
    response.set_content(body.dump(), "application/json");
}

}  // namespace

ScriptedUploads::ScriptedUploads(TestServer& server) : server_(server) {}

void ScriptedUploads::issue(const std::string& id, std::optional<nlohmann::json> captureMs) {
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

void ScriptedUploads::expect(const std::string& id) {
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
    server_.on(base + "complete", [this, id](const httplib::Request&, httplib::Response& response) {
        std::lock_guard lock(mutex_);
        auto& upload = uploads_[id];
        if (std::int64_t(upload.data.size()) != upload.bytes ||
            sha256(upload.data) != upload.sha256) {
            answer(response, 422, {{"error", "desktop_upload_digest_mismatch"}});
            return;
        }
        upload.completed = true;
        answer(response, 200, nlohmann::json::object());
    });
    server_.on(base + "publish", [this, id](const httplib::Request&, httplib::Response& response) {
        std::lock_guard lock(mutex_);
        auto& upload = uploads_[id];
        if (!upload.completed) {
            answer(response, 409, {{"error", "desktop_upload_incomplete"}});
            return;
        }
        upload.published = true;
        answer(response, 200, nlohmann::json::object());
    });
}

void ScriptedUploads::chunk(const std::string& id, const httplib::Request& request,
                            httplib::Response& response) {
    std::lock_guard lock(mutex_);
    auto& upload = uploads_[id];
    ++upload.chunks;
    auto fault = Fault::none;
    if (!faults_.empty()) {
        fault = faults_.front();
        faults_.pop_front();
    }
    auto offset = std::stoll(request.get_header_value("X-Pavix-Offset"));
    if (fault == Fault::conflict || offset != std::int64_t(upload.data.size())) {
        answer(response, 409,
               {{"error", "desktop_upload_offset"}, {"received", upload.data.size()}});
        return;
    }
    switch (fault) {
        case Fault::drop:
            TestServer::truncate(response, 100, 0);
            return;
        case Fault::badGateway:
            response.status = 502;
            response.set_content("Bad Gateway", "text/plain");
            return;
        default:
            break;
    }
    upload.data += request.body;
    std::int64_t received = upload.data.size();
    if (fault == Fault::receiptBelow) {
        received -= 1;
    } else if (fault == Fault::receiptAbove) {
        received = upload.bytes + 1;
    }
    answer(response, 200, {{"received", received}});
}

void ScriptedUploads::hold(const std::string& id, std::string data) {
    std::lock_guard lock(mutex_);
    uploads_[id].data = std::move(data);
}

void ScriptedUploads::onBegin(std::function<void()> hook) {
    std::lock_guard lock(mutex_);
    onBegin_ = std::move(hook);
}

void ScriptedUploads::fault(Fault fault) {
    std::lock_guard lock(mutex_);
    faults_.push_back(fault);
}

std::optional<ScriptedUploads::Upload> ScriptedUploads::upload(const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto found = uploads_.find(id);
    if (found == uploads_.end()) {
        return std::nullopt;
    }
    return found->second;
}

}  // namespace pavix::test
