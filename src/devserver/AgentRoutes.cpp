#include "devserver/AgentRoutes.h"

#include "devserver/AgentKey.h"
#include "devserver/AppVersion.h"
#include "devserver/ConsolePage.h"
#include "devserver/DevServer.h"
#include "devserver/HttpSupport.h"
#include "devserver/Ids.h"
#include "devserver/UrlCodec.h"

#include <cstdio>
#include <memory>

namespace pavix::devserver {

using json = nlohmann::json;
using HttpSupport::send;

namespace {

using Route = std::function<Reply(const httplib::Request&)>;

// JSON body of an agent POST (an empty body counts as {}).
std::optional<Reply> agentBody(const httplib::Request& req, json& out) {
    if (req.body.empty() && !req.has_header("Content-Type")) {
        return Reply::error(415, "unsupported_media_type",
                            {{"detail", "agent calls take Content-Type: application/json"}});
    }
    if (req.body.empty() && HttpSupport::mediaTypeIs(req, "application/json")) {
        out = json::object();
        return std::nullopt;
    }
    return HttpSupport::jsonBody(req, out);
}

}  // namespace

void AgentRoutes::install(httplib::Server& http) {
    // Before any route: an agent call without the key ends here, and the console's address
    // with the key leaves it in a cookie and takes the key out of the address bar.
    http.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        if (req.path == "/" && req.has_param("key") &&
            AgentKey::same(req.get_param_value("key"), s_.agentKey())) {
            res.set_header("Set-Cookie", std::string(AgentKey::kCookie) + "=" + s_.agentKey() +
                                             "; Path=/; HttpOnly; SameSite=Strict");
            res.set_redirect("/", 303);
            return httplib::Server::HandlerResponse::Handled;
        }
        if (req.path.rfind("/agent/", 0) == 0 && !AgentKey::carried(req, s_.agentKey())) {
            send(res, Reply::error(401, "agent_key_required",
                                   {{"detail", std::string("agent calls carry the key in ") +
                                                   AgentKey::kHeader +
                                                   "; open the console at the address "
                                                   "pavix-devserver printed"}}));
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });

    auto get = [&](const std::string& pattern, Route r) {
        http.Get(pattern, s_.guarded([r](const httplib::Request& req, httplib::Response& res) {
            send(res, r(req));
        }));
    };
    auto post = [&](const std::string& pattern, Route r) {
        http.Post(pattern, s_.guarded([r](const httplib::Request& req, httplib::Response& res) {
            json body;
            if (auto bad = agentBody(req, body))
                return send(res, *bad);
            send(res, r(req));
        }));
    };

    http.Get("/", s_.guarded([](const httplib::Request&, httplib::Response& res) {
        res.set_header("Cache-Control", "no-store");
        res.set_content(ConsolePage::html(), "text/html; charset=utf-8");
    }));

    get("/agent/status", [this](const httplib::Request&) {
        return Reply::ok({{"service", "pavix-devserver"},
                          {"server", s_.baseUrl()},
                          {"console", s_.baseUrl() + "/"},
                          {"settings", settingsJson()}});
    });
    get("/agent/settings", [this](const httplib::Request&) { return Reply::ok(settingsJson()); });
    post("/agent/settings", [this](const httplib::Request& req) { return changeSettings(req); });

    post("/agent/pairing-codes", [this](const httplib::Request&) { return createCode(); });
    get("/agent/pairing-codes", [this](const httplib::Request&) {
        json list = json::array();
        for (auto& c : s_.tokens().activeCodes()) {
            list.push_back({{"code", c.code},
                            {"createdAt", c.createdAt},
                            {"expiresAt", c.expiresAt},
                            {"setupLink", UrlCodec::setupLink(s_.baseUrl(), c.code)}});
        }
        return Reply::ok({{"codes", list}, {"server", s_.baseUrl()}});
    });

    get("/agent/devices", [this](const httplib::Request&) { return devices(); });
    get(R"(/agent/devices/([^/]+))", [this](const httplib::Request& req) {
        auto d = deviceJson(req.matches[1].str());
        return d.is_null() ? Reply::error(404, "device_not_found") : Reply::ok(d);
    });
    post(R"(/agent/devices/([^/]+)/commands)",
         [this](const httplib::Request& req) { return sendCommand(req, req.matches[1].str()); });
    post(R"(/agent/devices/([^/]+)/(disconnect|expire-access|revoke))",
         [this](const httplib::Request& req) {
             return deviceAction(req, req.matches[1].str(), req.matches[2].str());
         });

    get("/agent/commands", [this](const httplib::Request& req) { return commands(req); });
    get(R"(/agent/commands/([^/]+))", [this](const httplib::Request& req) {
        auto c = s_.commands().get(req.matches[1].str());
        return c ? Reply::ok(c->toJson()) : Reply::error(404, "command_not_found");
    });
    post("/agent/captures", [this](const httplib::Request& req) { return issueCapture(req); });

    get("/agent/recordings", [this](const httplib::Request& req) {
        json list = json::array();
        for (auto& u : s_.uploads().uploads(req.get_param_value("all") != "1")) {
            auto j = u.toJson();
            j["video"] = "/agent/recordings/" + u.id + "/video";
            list.push_back(j);
        }
        return Reply::ok({{"recordings", list}});
    });
    get(R"(/agent/recordings/([^/]+))", [this](const httplib::Request& req) {
        auto u = s_.uploads().upload(req.matches[1].str());
        return u ? Reply::ok(u->toJson()) : Reply::error(404, "recording_not_found");
    });
    http.Get(R"(/agent/recordings/([^/]+)/video)",
             s_.guarded([this](const httplib::Request& req, httplib::Response& res) {
                 video(req, res, req.matches[1].str());
             }));

    get("/agent/faults", [this](const httplib::Request&) {
        json list = json::array();
        for (auto& f : s_.faults().list())
            list.push_back(f.toJson());
        return Reply::ok({{"faults", list}});
    });
    post("/agent/faults", [this](const httplib::Request& req) { return addFault(req); });
    http.Delete("/agent/faults", [this](const httplib::Request&, httplib::Response& res) {
        s_.faults().clear();
        send(res, Reply::ok({{"cleared", true}}));
    });
    http.Delete(R"(/agent/faults/([^/]+))", [this](const httplib::Request& req,
                                                   httplib::Response& res) {
        send(res, s_.faults().remove(req.matches[1].str()) ? Reply::ok({{"removed", true}})
                                                           : Reply::error(404, "fault_not_found"));
    });
    get("/agent/diagnostics", [this](const httplib::Request&) {
        return Reply::ok({{"diagnostics", s_.diagnostics().recent(200)}});
    });

    // The benchmark's raw-upload baseline: swallows the body, answers its length.
    http.Post("/agent/bench/sink", [](const httplib::Request&, httplib::Response& res,
                                      const httplib::ContentReader& reader) {
        size_t n = 0;
        reader([&](const char*, size_t len) {
            n += len;
            return true;
        });
        send(res, Reply::ok({{"received", n}}));
    });
}

json AgentRoutes::settingsJson() {
    auto st = s_.settings();
    json j = {{"minimumAppVersion", st.minimumAppVersion},
              {"latestAppVersion", st.latestAppVersion},
              {"sessionsDisabled", st.sessionsDisabled},
              {"pollHoldMs", st.pollHoldMs},
              {"captureMs", st.captureMs ? json(*st.captureMs) : json()}};
    return j;
}

Reply AgentRoutes::changeSettings(const httplib::Request& req) {
    json body;
    HttpSupport::jsonBody(req, body);
    auto st = s_.settings();
    try {
        for (auto& [k, v] : body.items()) {
            if (k == "minimumAppVersion" || k == "latestAppVersion") {
                if (!v.is_string() || !AppVersion::isValid(v.get<std::string>())) {
                    return Reply::invalid(k + " must be a dotted version");
                }
                (k == "minimumAppVersion" ? st.minimumAppVersion : st.latestAppVersion) = v;
            } else if (k == "sessionsDisabled") {
                st.sessionsDisabled = v.get<bool>();
            } else if (k == "pollHoldMs") {
                st.pollHoldMs = v.get<int64_t>();
                if (st.pollHoldMs < 0 || st.pollHoldMs > 600000)
                    return Reply::invalid("pollHoldMs out of range");
            } else if (k == "captureMs") {
                st.captureMs =
                    v.is_null() ? std::nullopt : std::optional<int64_t>(v.get<int64_t>());
            } else {
                return Reply::error(400, "unexpected_field", {{"field", k}});
            }
        }
    } catch (const json::exception&) {
        return Reply::invalid("a setting has the wrong type");
    }
    s_.setSettings(st);
    return Reply::ok(settingsJson());
}

Reply AgentRoutes::createCode() {
    auto c = s_.tokens().createCode();
    return Reply::ok({{"code", c.code},
                      {"createdAt", c.createdAt},
                      {"expiresAt", c.expiresAt},
                      {"server", s_.baseUrl()},
                      {"setupLink", UrlCodec::setupLink(s_.baseUrl(), c.code)}});
}

json AgentRoutes::deviceJson(const std::string& deviceId) {
    auto d = s_.tokens().device(deviceId);
    if (!d)
        return nullptr;
    auto a = s_.commands().activity(d->id);
    std::string state = d->revokedAt    ? "revoked"
                        : a.polling > 0 ? "polling"
                        : a.session     ? "connected"
                                        : "paired";
    json j = {{"deviceId", d->id},        {"name", d->name},
              {"pairedAt", d->pairedAt},  {"revoked", d->revokedAt.has_value()},
              {"state", state},           {"session", a.session},
              {"polling", a.polling > 0}, {"queued", a.queued},
              {"inFlight", a.inFlight},   {"appVersion", d->appVersion}};
    j["lastSeen"] = d->lastSeen ? json(*d->lastSeen) : json();
    j["lastPollAt"] = a.lastPollAt ? json(*a.lastPollAt) : json();
    return j;
}

Reply AgentRoutes::devices() {
    json list = json::array();
    for (auto& d : s_.tokens().devices())
        list.push_back(deviceJson(d.id));
    return Reply::ok({{"devices", list}});
}

Reply AgentRoutes::sendCommand(const httplib::Request& req, const std::string& deviceId) {
    json body;
    HttpSupport::jsonBody(req, body);
    auto d = s_.tokens().device(deviceId);
    if (!d)
        return Reply::error(404, "device_not_found");
    if (d->revokedAt)
        return Reply::error(409, "device_revoked");
    if (!body.contains("method") || !body["method"].is_string() ||
        body["method"].get<std::string>().empty()) {
        return Reply::invalid("method must be non-empty text");
    }
    json args = body.value("args", json::array());
    if (!args.is_array())
        return Reply::invalid("args must be a JSON list");
    int64_t timeoutMs = 30000;
    if (body.contains("timeoutMs")) {
        if (!body["timeoutMs"].is_number_integer())
            return Reply::invalid("timeoutMs must be an integer");
        timeoutMs = body["timeoutMs"].get<int64_t>();
        if (timeoutMs < 0 || timeoutMs > 3600000)
            return Reply::invalid("timeoutMs out of range");
    }
    bool wait = body.value("wait", true);
    // A capture id handed to the device is one it may upload under.
    if (!args.empty() && args[0].is_object() && args[0].contains("captureId") &&
        args[0]["captureId"].is_string() && Ids::isUuid(args[0]["captureId"].get<std::string>())) {
        auto id = Ids::lower(args[0]["captureId"].get<std::string>());
        if (!s_.uploads().registerAgentCapture(id, deviceId)) {
            return Reply::error(409, "capture_id_in_use");
        }
    }
    auto id = s_.commands().enqueue(deviceId, body["method"], args);
    if (!wait)
        return Reply::ok({{"id", id}, {"state", "queued"}});
    auto rec = s_.commands().wait(id, std::chrono::milliseconds(timeoutMs));
    if (!rec)
        return Reply::error(500, "internal_error");
    switch (rec->state) {
        case CommandRecord::State::Answered:
            return Reply::ok({{"id", id}, {"state", "answered"}, {"reply", rec->reply}});
        case CommandRecord::State::Abandoned:
            return Reply::error(502, "command_abandoned", {{"id", id}, {"reason", rec->reason}});
        default:
            return Reply::error(504, "command_timeout",
                                {{"id", id}, {"state", CommandRecord::stateName(rec->state)}});
    }
}

Reply AgentRoutes::deviceAction(const httplib::Request&, const std::string& deviceId,
                                const std::string& action) {
    if (!s_.tokens().device(deviceId))
        return Reply::error(404, "device_not_found");
    if (action == "disconnect") {
        s_.commands().closeSession(deviceId, "local_browser_disconnected");
    } else if (action == "expire-access") {
        s_.tokens().expireAccess(deviceId);
    } else {
        s_.tokens().revokeDevice(deviceId);
        s_.commands().closeSession(deviceId, "device_revoked");
    }
    return Reply::ok(deviceJson(deviceId));
}

Reply AgentRoutes::commands(const httplib::Request& req) {
    size_t limit = 50;
    if (req.has_param("limit")) {
        try {
            limit = std::stoul(req.get_param_value("limit"));
        } catch (...) {
            return Reply::invalid("limit must be a number");
        }
    }
    json list = json::array();
    for (auto& c : s_.commands().recent(req.get_param_value("deviceId"), limit)) {
        list.push_back(c.toJson());
    }
    return Reply::ok({{"commands", list}});
}

Reply AgentRoutes::issueCapture(const httplib::Request& req) {
    json body;
    HttpSupport::jsonBody(req, body);
    if (!body.contains("deviceId") || !body["deviceId"].is_string()) {
        return Reply::invalid("deviceId must be text");
    }
    std::string deviceId = body["deviceId"];
    if (!s_.tokens().device(deviceId))
        return Reply::error(404, "device_not_found");
    auto id = Ids::uuid();
    s_.uploads().registerAgentCapture(id, deviceId);
    return Reply::ok({{"captureId", id}});
}

Reply AgentRoutes::addFault(const httplib::Request& req) {
    json body;
    HttpSupport::jsonBody(req, body);
    std::string why;
    auto rule = FaultRule::fromJson(body, &why);
    if (!rule)
        return Reply::invalid(why, "invalid_fault");
    auto id = s_.faults().add(*rule);
    for (auto& f : s_.faults().list()) {
        if (f.id == id)
            return Reply::ok(f.toJson());
    }
    return Reply::ok({{"id", id}});
}

void AgentRoutes::video(const httplib::Request& req, httplib::Response& res,
                        const std::string& id) {
    auto u = s_.uploads().upload(id);
    if (!u || u->state == "receiving")
        return send(res, Reply::error(404, "recording_not_found"));
    std::string path = s_.uploads().filePath(id);
    std::shared_ptr<FILE> file(std::fopen(path.c_str(), "rb"), [](FILE* f) {
        if (f)
            std::fclose(f);
    });
    if (!file)
        return send(res, Reply::error(404, "recording_not_found"));
    if (req.get_param_value("download") == "1") {
        res.set_header("Content-Disposition", "attachment; filename=\"Pavix-" + id + ".mp4\"");
    }
    res.set_header("Accept-Ranges", "bytes");
    res.set_content_provider(static_cast<size_t>(u->bytes), "video/mp4",
                             [file](size_t offset, size_t length, httplib::DataSink& sink) {
                                 char buf[65536];
                                 size_t n = std::min(length, sizeof buf);
                                 if (fseeko(file.get(), static_cast<off_t>(offset), SEEK_SET) != 0)
                                     return false;
                                 size_t got = std::fread(buf, 1, n, file.get());
                                 if (got == 0)
                                     return false;
                                 return sink.write(buf, got);
                             });
}

}  // namespace pavix::devserver
