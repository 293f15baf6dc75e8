#pragma once

#include "devserver/Database.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pavix::devserver {

// The five fields of the device credential; expiry times in milliseconds since 1970.
struct Identity {
    std::string deviceId;
    std::string accessToken;
    int64_t accessExpiresAt = 0;
    std::string refreshToken;
    int64_t refreshExpiresAt = 0;

    // The pairing and refresh replies: the five fields, plus "token" (the session's bearer, the
    // access token) and "mode" "desktop".
    nlohmann::json reply() const;
};

struct PairingCode {
    std::string code;
    int64_t createdAt = 0;
    int64_t expiresAt = 0;
};

struct DeviceRecord {
    std::string id;
    std::string name;
    int64_t pairedAt = 0;
    std::optional<int64_t> revokedAt;
    std::optional<int64_t> lastSeen;
    std::string appVersion;
};

struct Lifetimes {
    int64_t codeMs = 10 * 60 * 1000;
    int64_t accessMs = 60 * 60 * 1000;
    int64_t refreshMs = 30LL * 24 * 60 * 60 * 1000;
    // How long after the latest rotation the refresh token it was rotated from may rotate again.
    int64_t refreshGraceMs = 60 * 1000;
};

// Pairing codes, paired devices and their tokens, kept in SQLite. Tokens are stored only as
// SHA-256 digests. Refresh rotates both tokens; the replaced ones stop working at once, with one
// exception: a reply lost on the way leaves the device holding only the refresh token it
// presented, so for `refreshGraceMs` after the latest rotation the token that rotation was made
// from may rotate again, which retires the pair the device never saw. Replies lost several
// times in a row are repaired the same way. An older token, one presented after the device
// used the pair issued in its place, or one presented after the grace, is refused.
class TokenStore {
  public:
    enum class Auth { Ok, Unknown, Expired, Revoked };
    struct AuthResult {
        Auth status = Auth::Unknown;
        std::string deviceId;
    };

    TokenStore(Database& db, Lifetimes lifetimes);

    PairingCode createCode();
    // Unused, unexpired codes, newest first.
    std::vector<PairingCode> activeCodes();
    // Consumes the code; nothing when it is unknown, used or expired.
    std::optional<Identity> pair(const std::string& code, const std::string& deviceName);
    AuthResult authenticate(const std::string& accessToken);
    // Rotates both tokens of the device that owns `refreshToken`.
    std::optional<Identity> refresh(const std::string& refreshToken, Auth* why = nullptr);
    // Revokes the device that owns `refreshToken` and every token it holds.
    AuthResult revoke(const std::string& refreshToken);

    // Agent-side helpers.
    bool expireAccess(const std::string& deviceId);
    bool revokeDevice(const std::string& deviceId);
    void touch(const std::string& deviceId, const std::string& appVersion);
    std::vector<DeviceRecord> devices();
    std::optional<DeviceRecord> device(const std::string& deviceId);

  private:
    Identity issue(const std::string& deviceId, int64_t now,
                   const std::optional<std::string>& parent);  // mutex held
    // A token by its digest; mutex held.
    AuthResult lookup(const std::string& hash, const char* kind, int64_t now);
    bool mayRotateAgain(const std::string& presentedHash, const std::string& deviceId,
                        int64_t now);                                              // mutex held
    void revokeAll(const std::string& deviceId, const char* reason, int64_t now);  // mutex held

    Database& db_;
    Lifetimes life_;
};

}  // namespace pavix::devserver
