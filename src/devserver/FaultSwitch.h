#pragma once

#include <nlohmann/json.hpp>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace pavix::devserver {

// One armed fault: the next `count` requests whose path matches `path` (a glob where "*" matches
// any run of characters), after `after` matching requests have passed untouched, get `action`.
struct FaultRule {
    enum class Action { Status, Drop, Stall, Truncate };

    std::string id;
    std::string method;  // empty: any method
    std::string path;
    Action action = Action::Status;
    int status = 503;
    std::string error = "fault_injected";  // the "error" code of a Status answer
    int stallMs = 0;
    int count = 1;
    int after = 0;
    int hits = 0;  // requests that matched so far (including the ones let through by `after`)

    nlohmann::json toJson() const;
    static const char* actionName(Action a);
    // "path=/local-browser/poll,status=503,count=2" or "path=...,drop", "stall=3000",
    // "truncate"; also "method=POST", "after=1", "error=CODE". Nothing (and `why`) when invalid.
    static std::optional<FaultRule> parse(const std::string& ruleText, std::string* why);
    // The agent API's JSON form: {"path", "action", "status", "stallMs", "count", "after",
    // "method", "error"} or {"rule": "..."}.
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

  private:
    std::mutex mutex_;
    std::vector<FaultRule> rules_;
    int next_ = 1;
};

}  // namespace pavix::devserver
