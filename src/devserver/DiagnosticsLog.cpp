#include "devserver/DiagnosticsLog.h"

#include "devserver/Clock.h"

namespace pavix::devserver {

DiagnosticsLog::DiagnosticsLog(Database& db) : db_(db) {
    std::lock_guard lock(db_.mutex());
    db_.exec(R"(CREATE TABLE IF NOT EXISTS diagnostics(
        device_id TEXT NOT NULL, event TEXT NOT NULL, code TEXT NOT NULL,
        app_version TEXT NOT NULL, at INTEGER NOT NULL))");
}

void DiagnosticsLog::record(const std::string& deviceId, const std::string& event,
                            const std::string& code, const std::string& appVersion) {
    std::lock_guard lock(db_.mutex());
    Statement(db_, "INSERT INTO diagnostics VALUES(?,?,?,?,?)")
        .bind(1, deviceId)
        .bind(2, event)
        .bind(3, code)
        .bind(4, appVersion)
        .bind(5, nowMs())
        .run();
}

nlohmann::json DiagnosticsLog::recent(int limit) {
    std::lock_guard lock(db_.mutex());
    Statement s(db_,
                "SELECT device_id, event, code, app_version, at FROM diagnostics "
                "ORDER BY rowid DESC LIMIT ?");
    s.bind(1, limit);
    auto out = nlohmann::json::array();
    while (s.step()) {
        out.push_back({{"deviceId", s.text(0)},
                       {"event", s.text(1)},
                       {"code", s.text(2)},
                       {"appVersion", s.text(3)},
                       {"at", s.integer(4)}});
    }
    return out;
}

}  // namespace pavix::devserver
