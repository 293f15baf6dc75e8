#pragma once

#include "devserver/Reply.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace pavix::devserver {

class DevServer;

// The app's side of the service: every POST under "/local-browser/" and the GET
// "/local-browser/version". Strict: it refuses what the real service
// would refuse, with the status and "error" code of each refusal.
class ServiceRoutes {
  public:
    explicit ServiceRoutes(DevServer& server) : s_(server) {}
    void install(httplib::Server& http);

  private:
    // A verified bearer: the device it belongs to.
    struct Caller {
        std::string deviceId;
        std::string appVersion;
    };

    Reply dispatch(const httplib::Request& req, const std::string& path);
    // "X-Pavix-App-Version" must be present and well formed; below the minimum it is refused
    // with 426 only when `enforceMinimum`.
    std::optional<Reply> versionGate(const httplib::Request& req, bool enforceMinimum);
    std::optional<Reply> authenticate(const httplib::Request& req, Caller& caller);

    Reply pair(const httplib::Request& req);
    Reply refresh(const httplib::Request& req);
    Reply revoke(const httplib::Request& req);
    Reply resume(const httplib::Request& req, const Caller& c);
    Reply disconnect(const httplib::Request& req, const Caller& c);
    Reply poll(const httplib::Request& req, const Caller& c);
    Reply result(const httplib::Request& req, const Caller& c, const std::string& id);
    Reply diagnostics(const httplib::Request& req, const Caller& c);
    Reply recordingBegin(const httplib::Request& req, const Caller& c);
    Reply upload(const httplib::Request& req, const Caller& c, const std::string& id,
                 const std::string& step);

    // A reply envelope as the app sends it; a description of the fault otherwise.
    static std::optional<std::string> checkResultEnvelope(const nlohmann::json& body);
    static std::optional<std::string> checkMedia(const nlohmann::json& media);

    DevServer& s_;
};

}  // namespace pavix::devserver
