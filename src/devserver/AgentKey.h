#pragma once

#include <optional>
#include <string>

namespace httplib {
struct Request;
}

// The agent API's key. The service listens on loopback only, but any program of any user on
// the machine can reach loopback, and a web page can send it requests: so every "/agent/" call
// carries the key, which the service keeps in its data folder for its owner alone. The console
// page gets it once through the address the service prints ("/?key=…") and keeps it in a
// same-site cookie; the command line reads it from the data folder.
namespace pavix::devserver::AgentKey {

inline constexpr const char* kHeader = "X-Pavix-Agent-Key";
inline constexpr const char* kCookie = "pavix_agent_key";
inline constexpr const char* kFileName = "agent-key";

// The key kept in `dataDir`, made (owner-only) on the first start.
std::string loadOrCreate(const std::string& dataDir);
// The key kept in `dataDir`, if there is one.
std::optional<std::string> read(const std::string& dataDir);
// Whether `request` carries `key`, in the header or the cookie.
bool carried(const httplib::Request& request, const std::string& key);
// Whether `a` equals `b`, in a time that does not depend on where they differ.
bool same(const std::string& a, const std::string& b);

}  // namespace pavix::devserver::AgentKey
