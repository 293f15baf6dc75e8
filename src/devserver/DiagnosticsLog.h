#pragma once

#include "devserver/Database.h"

#include <nlohmann/json.hpp>

#include <string>

namespace pavix::devserver {

// The "diagnostics" reports (event, code, app version), kept for the agent to read.
class DiagnosticsLog {
  public:
    explicit DiagnosticsLog(Database& db);
    void record(const std::string& deviceId, const std::string& event, const std::string& code,
                const std::string& appVersion);
    // Newest first.
    nlohmann::json recent(int limit);

  private:
    Database& db_;
};

}  // namespace pavix::devserver
