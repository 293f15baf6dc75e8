#include "devserver/ServiceRoutes.h"

#include "devserver/AppVersion.h"
#include "devserver/DevServer.h"
#include "devserver/Digest.h"
#include "devserver/HttpSupport.h"
#include "devserver/Ids.h"
#include "devserver/SocketControl.h"

namespace pavix::devserver {

using HttpSupport::jsonBody;
using HttpSupport::onlyKeys;
using json = nlohmann::json;

namespace {

// "result/" + id.
bool resultPath(const std::string& path, std::string& id) {
    const std::string prefix = "result/";
    if (path.rfind(prefix, 0) != 0)
        return false;
    id = path.substr(prefix.size());
    return !id.empty() && id.find('/') == std::string::npos;
}

// "desktop-upload/" + id + "/" + one of begin, chunk, complete, publish.
bool uploadPath(const std::string& path, std::string& id, std::string& step) {
    const std::string prefix = "desktop-upload/";
    if (path.rfind(prefix, 0) != 0)
        return false;
    auto rest = path.substr(prefix.size());
    auto slash = rest.find('/');
    if (slash == std::string::npos || slash == 0)
        return false;
    id = rest.substr(0, slash);
    step = rest.substr(slash + 1);
    return step == "begin" || step == "chunk" || step == "complete" || step == "publish";
}

bool isInteger(const json& v) {
    return v.is_number_integer() || v.is_number_unsigned();
}

// The empty JSON object that "resume", "disconnect", "poll", "complete" and "publish" take.
std::optional<Reply> emptyObject(const httplib::Request& req) {
    json body;
    if (auto bad = jsonBody(req, body))
        return bad;
    return onlyKeys(body, {});
}

}  // namespace

void ServiceRoutes::install(httplib::Server& http) {
    http.Get("/local-browser/version",
             s_.guarded([this](const httplib::Request&, httplib::Response& res) {
                 auto st = s_.settings();
                 HttpSupport::send(res, Reply::ok({{"minimumAppVersion", st.minimumAppVersion},
                                                   {"latestAppVersion", st.latestAppVersion}}));
             }));
    // The update manifest of the Linux build, as the download host would publish it.
    http.Get("/downloads/pavix-linux.json", s_.guarded([this](const httplib::Request&,
                                                              httplib::Response& res) {
        auto st = s_.settings();
        HttpSupport::send(res, Reply::ok({{"latest", {{"version", st.latestAppVersion}}}}));
    }));
    http.Get(R"(/local-browser(/.*)?)",
             s_.guarded([](const httplib::Request&, httplib::Response& res) {
                 HttpSupport::send(res, Reply::error(405, "method_not_allowed",
                                                     {{"detail", "service calls are POST"}}));
             }));
    http.Post(R"(/local-browser/(.*))",
              s_.guarded([this](const httplib::Request& req, httplib::Response& res) {
                  HttpSupport::send(res, dispatch(req, req.matches[1].str()));
              }));
}

std::optional<Reply> ServiceRoutes::versionGate(const httplib::Request& req, bool enforceMinimum) {
    if (!req.has_header("X-Pavix-App-Version")) {
        return Reply::error(400, "app_version_missing",
                            {{"detail", "every call carries X-Pavix-App-Version"}});
    }
    std::string v = req.get_header_value("X-Pavix-App-Version");
    if (v != "dev" && !AppVersion::isValid(v)) {
        return Reply::error(400, "invalid_app_version", {{"detail", "not a dotted version"}});
    }
    auto st = s_.settings();
    if (enforceMinimum && !AppVersion::isCurrent(v, st.minimumAppVersion)) {
        return Reply::error(426, "app_update_required",
                            {{"minimumAppVersion", st.minimumAppVersion},
                             {"latestAppVersion", st.latestAppVersion}});
    }
    return std::nullopt;
}

std::optional<Reply> ServiceRoutes::authenticate(const httplib::Request& req, Caller& caller) {
    auto token = HttpSupport::bearer(req);
    if (!token) {
        return Reply::error(401, "unauthorized",
                            {{"detail", "this call needs Authorization: Bearer <access token>"}});
    }
    auto auth = s_.tokens().authenticate(*token);
    if (auth.status != TokenStore::Auth::Ok)
        return Reply::error(401, "device_credentials_expired");
    caller.deviceId = auth.deviceId;
    caller.appVersion = req.get_header_value("X-Pavix-App-Version");
    s_.tokens().touch(caller.deviceId, caller.appVersion);
    return std::nullopt;
}

Reply ServiceRoutes::dispatch(const httplib::Request& req, const std::string& path) {
    std::string id, step;
    bool isResult = resultPath(path, id);
    bool isUpload = !isResult && uploadPath(path, id, step);
    bool known = path == "pair" || path == "device/refresh" || path == "device/revoke" ||
                 path == "device/resume" || path == "disconnect" || path == "poll" ||
                 path == "diagnostics" || path == "desktop-recording/begin" || isResult || isUpload;
    if (!known)
        return Reply::error(404, "not_found");
    // Too old an app may not start sessions or recordings, but what it already holds goes on:
    // "Update to Pavix X to start new recordings. Current uploads continue.". So the
    // credential calls, the uploads, disconnect and diagnostics pass the minimum.
    bool startsSomething = path == "pair" || path == "device/resume" || path == "poll" ||
                           path == "desktop-recording/begin" || isResult;
    if (auto gate = versionGate(req, startsSomething))
        return *gate;

    if (path == "pair")
        return pair(req);
    if (path == "device/refresh")
        return refresh(req);
    if (path == "device/revoke")
        return revoke(req);

    Caller c;
    if (auto refused = authenticate(req, c))
        return *refused;
    if (path == "device/resume")
        return resume(req, c);
    if (path == "disconnect")
        return disconnect(req, c);
    if (path == "poll")
        return poll(req, c);
    if (path == "diagnostics")
        return diagnostics(req, c);
    if (path == "desktop-recording/begin")
        return recordingBegin(req, c);
    if (isResult)
        return result(req, c, id);
    return upload(req, c, id, step);
}

Reply ServiceRoutes::pair(const httplib::Request& req) {
    json body;
    if (auto bad = jsonBody(req, body))
        return *bad;
    if (auto bad = onlyKeys(body, {"code", "persistent", "deviceName"}))
        return *bad;
    if (!body.contains("code") || !body["code"].is_string())
        return Reply::invalid("code must be text");
    if (!body.contains("persistent") || !body["persistent"].is_boolean()) {
        return Reply::invalid("persistent must be true or false");
    }
    if (!body.contains("deviceName") || !body["deviceName"].is_string() ||
        body["deviceName"].get<std::string>().empty() ||
        body["deviceName"].get<std::string>().size() > 256) {
        return Reply::invalid("deviceName must be non-empty text");
    }
    if (s_.settings().sessionsDisabled)
        return Reply::error(503, "desktop_sessions_disabled");
    auto id =
        s_.tokens().pair(body["code"].get<std::string>(), body["deviceName"].get<std::string>());
    if (!id)
        return Reply::error(400, "pairing_code_invalid");
    s_.tokens().touch(id->deviceId, req.get_header_value("X-Pavix-App-Version"));
    s_.commands().openSession(id->deviceId);
    return Reply::ok(id->reply());
}

Reply ServiceRoutes::refresh(const httplib::Request& req) {
    json body;
    if (auto bad = jsonBody(req, body))
        return *bad;
    if (auto bad = onlyKeys(body, {"refreshToken"}))
        return *bad;
    if (!body.contains("refreshToken") || !body["refreshToken"].is_string()) {
        return Reply::invalid("refreshToken must be text");
    }
    auto id = s_.tokens().refresh(body["refreshToken"].get<std::string>());
    if (!id)
        return Reply::error(401, "device_credentials_expired");
    s_.tokens().touch(id->deviceId, req.get_header_value("X-Pavix-App-Version"));
    return Reply::ok(id->reply());
}

Reply ServiceRoutes::revoke(const httplib::Request& req) {
    json body;
    if (auto bad = jsonBody(req, body))
        return *bad;
    if (auto bad = onlyKeys(body, {"refreshToken"}))
        return *bad;
    if (!body.contains("refreshToken") || !body["refreshToken"].is_string()) {
        return Reply::invalid("refreshToken must be text");
    }
    // The refresh token is the credential here: after "disconnect" the app holds no session
    // token, so a bearer is not required (and one that is sent is not looked at).
    auto r = s_.tokens().revoke(body["refreshToken"].get<std::string>());
    if (r.status != TokenStore::Auth::Ok)
        return Reply::error(401, "device_credentials_expired");
    s_.commands().closeSession(r.deviceId, "device_revoked");
    return Reply::ok({{"revoked", true}, {"deviceId", r.deviceId}});
}

Reply ServiceRoutes::resume(const httplib::Request& req, const Caller& c) {
    if (auto bad = emptyObject(req))
        return *bad;
    if (s_.settings().sessionsDisabled)
        return Reply::error(503, "desktop_sessions_disabled");
    s_.commands().openSession(c.deviceId);
    return Reply::ok({{"mode", "desktop"}, {"deviceId", c.deviceId}});
}

Reply ServiceRoutes::disconnect(const httplib::Request& req, const Caller& c) {
    if (auto bad = emptyObject(req))
        return *bad;
    s_.commands().closeSession(c.deviceId, "local_browser_disconnected");
    return Reply::ok({{"disconnected", true}});
}

Reply ServiceRoutes::poll(const httplib::Request& req, const Caller& c) {
    if (auto bad = emptyObject(req))
        return *bad;
    if (!s_.commands().sessionActive(c.deviceId)) {
        return Reply::error(410, "local_browser_disconnected");
    }
    int fd = SocketControl::find(req);
    auto outcome =
        s_.commands().poll(c.deviceId, std::chrono::milliseconds(s_.settings().pollHoldMs),
                           [fd] { return SocketControl::alive(fd); });
    if (outcome.kind == CommandQueue::PollOutcome::Kind::Disconnected) {
        return Reply::error(410, "local_browser_disconnected");
    }
    return Reply::ok(outcome.envelope);
}

std::optional<std::string> ServiceRoutes::checkResultEnvelope(const json& body) {
    if (body.contains("error")) {
        if (body.size() != 1)
            return "an error reply holds only \"error\"";
        if (!body["error"].is_string())
            return "\"error\" must be text";
        auto e = body["error"].get<std::string>();
        if (e != "local_browser_action_failed" && e.rfind("local_method_forbidden", 0) != 0 &&
            e.rfind("local_sign_in_required", 0) != 0) {
            return "\"error\" must be local_browser_action_failed or begin with "
                   "local_method_forbidden or local_sign_in_required";
        }
        return std::nullopt;
    }
    if (!body.contains("value"))
        return "a reply holds \"value\" and \"meta\", or \"error\"";
    for (auto& [k, v] : body.items()) {
        if (k != "value" && k != "meta")
            return "unexpected key \"" + k + "\"";
    }
    if (!body.contains("meta") || !body["meta"].is_object())
        return "\"meta\" must be an object";
    const json& meta = body["meta"];
    if (!meta.contains("captureViewport") || !meta["captureViewport"].is_object() ||
        !isInteger(meta["captureViewport"].value("width", json())) ||
        !isInteger(meta["captureViewport"].value("height", json()))) {
        return "meta.captureViewport must hold integer width and height";
    }
    if (meta.value("recordingMode", json()) != "screencast") {
        return "meta.recordingMode must be \"screencast\"";
    }
    if (!meta.contains("pointerTrail") || !meta["pointerTrail"].is_array()) {
        return "meta.pointerTrail must be a list";
    }
    if (!meta.contains("identitySightings") || !meta["identitySightings"].is_array()) {
        return "meta.identitySightings must be a list";
    }
    if (meta.contains("desktopWindow") && !meta["desktopWindow"].is_object()) {
        return "meta.desktopWindow must be an object";
    }
    return std::nullopt;
}

Reply ServiceRoutes::result(const httplib::Request& req, const Caller& c, const std::string& id) {
    if (!Ids::isUuid(id))
        return Reply::invalid("the command id is not a UUID", "invalid_command_id");
    json body;
    if (auto bad = jsonBody(req, body))
        return *bad;
    if (auto why = checkResultEnvelope(body))
        return Reply::invalid(*why, "invalid_result");
    if (!s_.commands().sessionActive(c.deviceId)) {
        return Reply::error(410, "local_browser_disconnected");
    }
    switch (s_.commands().postResult(c.deviceId, id, body)) {
        case CommandQueue::ResultStatus::Accepted:
            return Reply::ok({{"accepted", true}});
        case CommandQueue::ResultStatus::NotFound:
            return Reply::error(404, "command_not_found");
        case CommandQueue::ResultStatus::AlreadyAnswered:
            return Reply::error(409, "result_already_received");
        case CommandQueue::ResultStatus::NotPending:
            return Reply::error(409, "command_not_pending",
                                {{"detail", "the command was withdrawn or abandoned"}});
    }
    return Reply::error(500, "internal_error");
}

Reply ServiceRoutes::diagnostics(const httplib::Request& req, const Caller& c) {
    json body;
    if (auto bad = jsonBody(req, body))
        return *bad;
    // Only the event, the code and the version: no message text, path or user data.
    if (auto bad = onlyKeys(body, {"event", "code", "appVersion"}))
        return *bad;
    for (const char* k : {"event", "code", "appVersion"}) {
        if (!body.contains(k) || !body[k].is_string() || body[k].get<std::string>().empty() ||
            body[k].get<std::string>().size() > 128) {
            return Reply::invalid(std::string(k) + " must be short non-empty text");
        }
    }
    s_.diagnostics().record(c.deviceId, body["event"], body["code"], body["appVersion"]);
    return Reply::ok();
}

Reply ServiceRoutes::recordingBegin(const httplib::Request& req, const Caller& c) {
    json body;
    if (auto bad = jsonBody(req, body))
        return *bad;
    if (auto bad = onlyKeys(body, {"requestId"}))
        return *bad;
    if (!body.contains("requestId") || !body["requestId"].is_string() ||
        !Ids::isLowerUuid(body["requestId"].get<std::string>())) {
        return Reply::invalid("requestId must be a lower-case hyphenated UUID");
    }
    auto st = s_.settings();
    if (st.sessionsDisabled)
        return Reply::error(503, "desktop_sessions_disabled");
    json out = {{"id", s_.uploads().issueCapture(c.deviceId, body["requestId"])}};
    if (st.captureMs)
        out["captureMs"] = *st.captureMs;
    return Reply::ok(out);
}

std::optional<std::string> ServiceRoutes::checkMedia(const json& media) {
    if (!media.is_object())
        return "media must be an object";
    for (auto& [k, v] : media.items()) {
        if (k != "width" && k != "height" && k != "durationMs" && k != "layers") {
            return "unexpected key media." + k;
        }
    }
    for (const char* k : {"width", "height", "durationMs"}) {
        if (!media.contains(k) || !isInteger(media[k]) || media[k].get<int64_t>() < 1) {
            return std::string("media.") + k + " must be a positive integer";
        }
    }
    if (media.contains("layers") && !media["layers"].is_object()) {
        return "media.layers must be an object";
    }
    return std::nullopt;
}

Reply ServiceRoutes::upload(const httplib::Request& req, const Caller& c, const std::string& id,
                            const std::string& step) {
    if (!Ids::isLowerUuid(id)) {
        return Reply::invalid("the upload id is the capture id as a lower-case UUID",
                              "invalid_capture_id");
    }
    auto& store = s_.uploads();
    if (step == "chunk") {
        if (!HttpSupport::mediaTypeIs(req, "application/octet-stream")) {
            return Reply::error(415, "unsupported_media_type",
                                {{"detail", "a chunk is sent as application/octet-stream"}});
        }
        if (req.get_header_value_count("X-Pavix-Offset") != 1) {
            return Reply::invalid("a chunk carries X-Pavix-Offset", "invalid_offset");
        }
        std::string text = req.get_header_value("X-Pavix-Offset");
        if (text.empty() || text.size() > 12 ||
            text.find_first_not_of("0123456789") != std::string::npos) {
            return Reply::invalid("X-Pavix-Offset must be a decimal byte count", "invalid_offset");
        }
        return store.chunk(c.deviceId, id, std::stoll(text), req.body);
    }
    if (step == "begin") {
        json body;
        if (auto bad = jsonBody(req, body))
            return *bad;
        if (auto bad = onlyKeys(body, {"bytes", "sha256", "media"}))
            return *bad;
        if (!body.contains("bytes") || !isInteger(body["bytes"]) ||
            body["bytes"].get<int64_t>() < 1) {
            return Reply::invalid("bytes must be a positive integer");
        }
        int64_t bytes = body["bytes"].get<int64_t>();
        if (bytes > UploadStore::kMaxUploadBytes) {
            return Reply::error(413, "upload_too_large",
                                {{"maximum", UploadStore::kMaxUploadBytes}});
        }
        if (!body.contains("sha256") || !body["sha256"].is_string() ||
            !Digest::isSha256Hex(body["sha256"].get<std::string>())) {
            return Reply::invalid("sha256 must be 64 lower-case hexadecimal characters");
        }
        if (!body.contains("media"))
            return Reply::invalid("media is required");
        if (auto why = checkMedia(body["media"]))
            return Reply::invalid(*why);
        return store.begin(c.deviceId, id, bytes, body["sha256"], body["media"]);
    }
    if (auto bad = emptyObject(req))
        return *bad;
    return step == "complete" ? store.complete(c.deviceId, id) : store.publish(c.deviceId, id);
}

}  // namespace pavix::devserver
