#pragma once

#include "devserver/Reply.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <string>

namespace pavix::devserver {

class DevServer;

// The agent's side, under "/agent/": pairing codes, devices, commands with their results,
// recordings, the fault switch and settings; plus the console page at "/". JSON in and out; every
// POST takes Content-Type application/json, which keeps other web pages from posting here.
class AgentRoutes {
  public:
    explicit AgentRoutes(DevServer& server) : s_(server) {}
    void install(httplib::Server& http);

    nlohmann::json deviceJson(const std::string& deviceId);

  private:
    Reply createCode();
    Reply devices();
    Reply sendCommand(const httplib::Request& req, const std::string& deviceId);
    Reply deviceAction(const httplib::Request& req, const std::string& deviceId,
                       const std::string& action);
    Reply commands(const httplib::Request& req);
    Reply issueCapture(const httplib::Request& req);
    Reply addFault(const httplib::Request& req);
    Reply changeSettings(const httplib::Request& req);
    nlohmann::json settingsJson();
    void video(const httplib::Request& req, httplib::Response& res, const std::string& id);

    DevServer& s_;
};

}  // namespace pavix::devserver
