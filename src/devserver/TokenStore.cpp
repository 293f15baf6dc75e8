#include "devserver/TokenStore.h"

#include "devserver/Clock.h"
#include "devserver/Digest.h"
#include "devserver/Ids.h"

namespace pavix::devserver {

nlohmann::json Identity::reply() const {
    return {{"token", accessToken},
            {"mode", "desktop"},
            {"deviceId", deviceId},
            {"accessToken", accessToken},
            {"accessExpiresAt", accessExpiresAt},
            {"refreshToken", refreshToken},
            {"refreshExpiresAt", refreshExpiresAt}};
}

TokenStore::TokenStore(Database& db, Lifetimes lifetimes) : db_(db), life_(lifetimes) {
    std::lock_guard lock(db_.mutex());
    db_.exec(R"(
        CREATE TABLE IF NOT EXISTS pairing_codes(
            code TEXT PRIMARY KEY, created_at INTEGER NOT NULL, expires_at INTEGER NOT NULL,
            used_at INTEGER, device_id TEXT);
        CREATE TABLE IF NOT EXISTS devices(
            id TEXT PRIMARY KEY, name TEXT NOT NULL, paired_at INTEGER NOT NULL,
            revoked_at INTEGER, last_seen INTEGER, app_version TEXT NOT NULL DEFAULT '');
        CREATE TABLE IF NOT EXISTS tokens(
            hash TEXT PRIMARY KEY, kind TEXT NOT NULL, device_id TEXT NOT NULL,
            issued_at INTEGER NOT NULL, expires_at INTEGER NOT NULL, revoked_at INTEGER,
            reason TEXT, parent TEXT, used_at INTEGER);
        CREATE INDEX IF NOT EXISTS tokens_device ON tokens(device_id);
    )");
    // A database kept from before tokens recorded where they came from and whether they were used.
    for (std::string column : {"parent TEXT", "used_at INTEGER"}) {
        Statement known(db_, "SELECT 1 FROM pragma_table_info('tokens') WHERE name = ?");
        if (!known.bind(1, column.substr(0, column.find(' '))).step())
            db_.exec("ALTER TABLE tokens ADD COLUMN " + column);
    }
}

PairingCode TokenStore::createCode() {
    std::lock_guard lock(db_.mutex());
    int64_t now = nowMs();
    PairingCode c{Ids::pairingCode(), now, now + life_.codeMs};
    Statement(db_, "INSERT INTO pairing_codes(code, created_at, expires_at) VALUES(?,?,?)")
        .bind(1, c.code)
        .bind(2, c.createdAt)
        .bind(3, c.expiresAt)
        .run();
    return c;
}

std::vector<PairingCode> TokenStore::activeCodes() {
    std::lock_guard lock(db_.mutex());
    Statement s(db_,
                "SELECT code, created_at, expires_at FROM pairing_codes WHERE used_at IS NULL "
                "AND expires_at > ? ORDER BY created_at DESC, rowid DESC");
    s.bind(1, nowMs());
    std::vector<PairingCode> out;
    while (s.step())
        out.push_back({s.text(0), s.integer(1), s.integer(2)});
    return out;
}

std::optional<Identity> TokenStore::pair(const std::string& code, const std::string& deviceName) {
    std::lock_guard lock(db_.mutex());
    int64_t now = nowMs();
    std::string deviceId = Ids::uuid();
    db_.exec("BEGIN IMMEDIATE");
    try {
        Statement use(db_,
                      "UPDATE pairing_codes SET used_at = ?, device_id = ? WHERE code = ? AND "
                      "used_at IS NULL AND expires_at > ?");
        use.bind(1, now).bind(2, deviceId).bind(3, code).bind(4, now).run();
        if (db_.changes() != 1) {
            db_.exec("ROLLBACK");
            return std::nullopt;
        }
        Statement(db_, "INSERT INTO devices(id, name, paired_at, last_seen) VALUES(?,?,?,?)")
            .bind(1, deviceId)
            .bind(2, deviceName)
            .bind(3, now)
            .bind(4, now)
            .run();
        Identity id = issue(deviceId, now, std::nullopt);
        db_.exec("COMMIT");
        return id;
    } catch (...) {
        db_.exec("ROLLBACK");
        throw;
    }
}

Identity TokenStore::issue(const std::string& deviceId, int64_t now,
                           const std::optional<std::string>& parent) {
    Identity id{deviceId, Ids::token("pvx_at_"), now + life_.accessMs, Ids::token("pvx_rt_"),
                now + life_.refreshMs};
    Statement ins(db_,
                  "INSERT INTO tokens(hash, kind, device_id, issued_at, expires_at) "
                  "VALUES(?,?,?,?,?)");
    ins.bind(1, Digest::sha256(id.accessToken))
        .bind(2, std::string("access"))
        .bind(3, deviceId)
        .bind(4, now)
        .bind(5, id.accessExpiresAt)
        .run();
    Statement ins2(db_,
                   "INSERT INTO tokens(hash, kind, device_id, issued_at, expires_at, parent) "
                   "VALUES(?,?,?,?,?,?)");
    ins2.bind(1, Digest::sha256(id.refreshToken))
        .bind(2, std::string("refresh"))
        .bind(3, deviceId)
        .bind(4, now)
        .bind(5, id.refreshExpiresAt)
        .bind(6, parent)
        .run();
    return id;
}

TokenStore::AuthResult TokenStore::lookup(const std::string& hash, const char* kind, int64_t now) {
    Statement s(db_,
                "SELECT t.device_id, t.expires_at, t.revoked_at, d.revoked_at FROM tokens t "
                "JOIN devices d ON d.id = t.device_id WHERE t.hash = ? AND t.kind = ?");
    s.bind(1, hash).bind(2, std::string(kind));
    if (!s.step())
        return {Auth::Unknown, {}};
    AuthResult r{Auth::Ok, s.text(0)};
    if (!s.isNull(2) || !s.isNull(3)) {
        r.status = Auth::Revoked;
    } else if (s.integer(1) <= now) {
        r.status = Auth::Expired;
    }
    return r;
}

TokenStore::AuthResult TokenStore::authenticate(const std::string& accessToken) {
    std::lock_guard lock(db_.mutex());
    const int64_t now = nowMs();
    const std::string hash = Digest::sha256(accessToken);
    auto r = lookup(hash, "access", now);
    if (r.status == Auth::Ok) {
        // The device has its reply: the refresh token it was rotated from may not rotate again.
        Statement(db_, "UPDATE tokens SET used_at = ? WHERE hash = ? AND used_at IS NULL")
            .bind(1, now)
            .bind(2, hash)
            .run();
    }
    return r;
}

std::optional<Identity> TokenStore::refresh(const std::string& refreshToken, Auth* why) {
    std::lock_guard lock(db_.mutex());
    int64_t now = nowMs();
    // Each refresh token records the one whose presentation issued it: after a lost reply the
    // device presents that same parent again.
    const std::string presented = Digest::sha256(refreshToken);
    auto r = lookup(presented, "refresh", now);
    if (r.status == Auth::Revoked && mayRotateAgain(presented, r.deviceId, now))
        r.status = Auth::Ok;
    if (why)
        *why = r.status;
    if (r.status != Auth::Ok)
        return std::nullopt;
    db_.exec("BEGIN IMMEDIATE");
    try {
        revokeAll(r.deviceId, "rotated", now);
        Identity id = issue(r.deviceId, now, presented);
        db_.exec("COMMIT");
        return id;
    } catch (...) {
        db_.exec("ROLLBACK");
        throw;
    }
}

bool TokenStore::mayRotateAgain(const std::string& presentedHash, const std::string& deviceId,
                                int64_t now) {
    // The device's live refresh token was rotated from the presented one, within the grace, and
    // no live token has been used since: the presenter may be the device whose replies were
    // lost, however many in a row. Once the device has used its new pair, the token presented
    // is a replay (a request of its own that arrived late, or a thief's) and stays refused, as
    // does any token of a revoked device.
    Statement s(db_,
                "SELECT 1 FROM tokens old JOIN tokens live ON live.device_id = old.device_id "
                "JOIN devices d ON d.id = old.device_id WHERE old.hash = ? AND "
                "old.kind = 'refresh' AND old.reason = 'rotated' AND old.expires_at > ? AND "
                "live.kind = 'refresh' AND live.revoked_at IS NULL AND live.parent = old.hash AND "
                "live.issued_at > ? AND d.revoked_at IS NULL AND d.id = ? AND NOT EXISTS "
                "(SELECT 1 FROM tokens used WHERE used.device_id = d.id AND "
                "used.revoked_at IS NULL AND used.used_at IS NOT NULL)");
    s.bind(1, presentedHash).bind(2, now).bind(3, now - life_.refreshGraceMs).bind(4, deviceId);
    return s.step();
}

void TokenStore::revokeAll(const std::string& deviceId, const char* reason, int64_t now) {
    Statement(db_,
              "UPDATE tokens SET revoked_at = ?, reason = ? WHERE device_id = ? AND "
              "revoked_at IS NULL")
        .bind(1, now)
        .bind(2, std::string(reason))
        .bind(3, deviceId)
        .run();
}

TokenStore::AuthResult TokenStore::revoke(const std::string& refreshToken) {
    std::lock_guard lock(db_.mutex());
    int64_t now = nowMs();
    auto r = lookup(Digest::sha256(refreshToken), "refresh", now);
    if (r.status != Auth::Ok)
        return r;
    revokeAll(r.deviceId, "revoked", now);
    Statement(db_, "UPDATE devices SET revoked_at = ? WHERE id = ?")
        .bind(1, now)
        .bind(2, r.deviceId)
        .run();
    return r;
}

bool TokenStore::expireAccess(const std::string& deviceId) {
    std::lock_guard lock(db_.mutex());
    Statement(db_,
              "UPDATE tokens SET expires_at = ? WHERE device_id = ? AND kind = 'access' AND "
              "revoked_at IS NULL")
        .bind(1, nowMs() - 1)
        .bind(2, deviceId)
        .run();
    return db_.changes() > 0;
}

bool TokenStore::revokeDevice(const std::string& deviceId) {
    std::lock_guard lock(db_.mutex());
    int64_t now = nowMs();
    Statement(db_, "UPDATE devices SET revoked_at = ? WHERE id = ? AND revoked_at IS NULL")
        .bind(1, now)
        .bind(2, deviceId)
        .run();
    bool changed = db_.changes() > 0;
    revokeAll(deviceId, "revoked", now);
    return changed;
}

void TokenStore::touch(const std::string& deviceId, const std::string& appVersion) {
    std::lock_guard lock(db_.mutex());
    Statement(db_, "UPDATE devices SET last_seen = ?, app_version = ? WHERE id = ?")
        .bind(1, nowMs())
        .bind(2, appVersion)
        .bind(3, deviceId)
        .run();
}

namespace {

DeviceRecord readDevice(Statement& s) {
    return {s.text(0), s.text(1), s.integer(2), s.optInteger(3), s.optInteger(4), s.text(5)};
}

}  // namespace

std::vector<DeviceRecord> TokenStore::devices() {
    std::lock_guard lock(db_.mutex());
    Statement s(db_,
                "SELECT id, name, paired_at, revoked_at, last_seen, app_version FROM devices "
                "ORDER BY paired_at DESC, rowid DESC");
    std::vector<DeviceRecord> out;
    while (s.step())
        out.push_back(readDevice(s));
    return out;
}

std::optional<DeviceRecord> TokenStore::device(const std::string& deviceId) {
    std::lock_guard lock(db_.mutex());
    Statement s(db_,
                "SELECT id, name, paired_at, revoked_at, last_seen, app_version FROM devices "
                "WHERE id = ?");
    s.bind(1, deviceId);
    if (!s.step())
        return std::nullopt;
    return readDevice(s);
}

}  // namespace pavix::devserver
