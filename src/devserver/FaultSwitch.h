#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pavix::devserver {

// One armed fault: the next `count` requests whose path matches `path` (a glob where "*" matches
// any run of characters), after `after` matching requests have passed untouched, get `action`:
//   Status     answered `status` with `error`, not handled
//   Drop       the connection is reset with no reply, not handled (lost on its way in)
//   Stall      handled after `stallMs`, then answered
//   Truncate   handled; half the answer's body, then the connection closes
//   DropReply  handled; the connection is reset before any answer (lost on its way back)
//   NonJson    handled; the answer keeps its status and gets a body that is not JSON
//   Shift      handled as if its X-Pavix-Offset were `shiftBytes` further on: a piece then gets
//              the service's own 409 upload_offset_mismatch
struct FaultRule {
    enum class Action { Status, Drop, Stall, Truncate, DropReply, NonJson, Shift };

    std::string id;
    std::string method;  // empty: any method
    std::string path;
    Action action = Action::Status;
    int status = 503;
    std::string error = "fault_injected";  // the "error" code of a Status answer
    int stallMs = 0;
    int shiftBytes = 1;
    int count = 1;
    int after = 0;
    int hits = 0;  // requests that matched so far (including the ones let through by `after`)

    nlohmann::json toJson() const;
    static const char* actionName(Action a);
    // "path=/local-browser/poll,status=503,count=2" or "path=...,drop", "stall=3000",
    // "truncate", "drop-reply", "nonjson", "shift=1"; also "method=POST", "after=1",
    // "error=CODE". Nothing (and `why`) when invalid.
    static std::optional<FaultRule> parse(const std::string& ruleText, std::string* why);
    // The agent API's JSON form: {"path", "action", "status", "stallMs", "shiftBytes", "count",
    // "after", "method", "error"} or {"rule": "..."}.
    static std::optional<FaultRule> fromJson(const nlohmann::json& j, std::string* why);
};

// The reliability tests' fault switch: armed by a start-up flag, the agent API or the CLI.
class FaultSwitch {
  public:
    std::string add(FaultRule rule);
    bool remove(const std::string& id);
    void clear();
    std::vector<FaultRule> list();
    // The rule that applies to this request, if any; its use is counted and a used-up rule is
    // dropped.
    std::optional<FaultRule> take(const std::string& method, const std::string& path);

    static bool globMatch(const std::string& pattern, const std::string& text);

    // What reached the guarded routes on the paths of a watched glob: the reliability tests
    // read it to tell what a client sent more than once.
    struct Traffic {
        std::int64_t requests = 0;
        std::int64_t bodyBytes = 0;
    };
    // Counts the requests on paths matching `glob` from now on (watching it again changes
    // nothing).
    void watch(const std::string& glob);
    // One request that reached a guarded route, counted before any fault applies to it.
    void count(const std::string& path, std::size_t bodyBytes);
    // What was counted for `glob`; nothing when it is not watched.
    Traffic traffic(const std::string& glob);

  private:
    std::mutex mutex_;
    std::vector<FaultRule> rules_;
    int next_ = 1;
    std::vector<std::pair<std::string, Traffic>> watched_;
};

}  // namespace pavix::devserver
