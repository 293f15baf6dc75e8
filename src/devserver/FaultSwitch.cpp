#include "devserver/FaultSwitch.h"

#include <cstdint>
#include <optional>
#include <sstream>

namespace pavix::devserver {

const char* FaultRule::actionName(Action a) {
    switch (a) {
        case Action::Status:
            return "status";
        case Action::Drop:
            return "drop";
        case Action::Stall:
            return "stall";
        case Action::Truncate:
            return "truncate";
        case Action::DropReply:
            return "drop-reply";
        case Action::NonJson:
            return "nonjson";
        case Action::Shift:
            return "shift";
    }
    return "status";
}

nlohmann::json FaultRule::toJson() const {
    nlohmann::json j = {{"id", id},       {"path", path},   {"action", actionName(action)},
                        {"count", count}, {"after", after}, {"hits", hits}};
    if (!method.empty())
        j["method"] = method;
    if (action == Action::Status) {
        j["status"] = status;
        j["error"] = error;
    }
    if (action == Action::Stall)
        j["stallMs"] = stallMs;
    if (action == Action::Shift)
        j["shiftBytes"] = shiftBytes;
    return j;
}

namespace {

bool toInt(const std::string& s, int lo, int hi, int* out) {
    try {
        size_t used = 0;
        long v = std::stol(s, &used);
        if (used != s.size() || v < lo || v > hi)
            return false;
        *out = static_cast<int>(v);
        return true;
    } catch (...) {
        return false;
    }
}

bool validate(const FaultRule& r, std::string* why) {
    if (r.path.empty() || r.path[0] != '/') {
        *why = "a fault needs path=/... (a glob where * matches anything)";
        return false;
    }
    return true;
}

}  // namespace

std::optional<FaultRule> FaultRule::parse(const std::string& ruleText, std::string* why) {
    FaultRule r;
    std::string dummy;
    if (!why)
        why = &dummy;
    std::stringstream in(ruleText);
    std::string item;
    while (std::getline(in, item, ',')) {
        if (item.empty())
            continue;
        auto eq = item.find('=');
        std::string key = item.substr(0, eq);
        std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
        bool ok = true;
        if (key == "path") {
            r.path = value;
        } else if (key == "method") {
            r.method = value;
        } else if (key == "status") {
            r.action = Action::Status;
            ok = toInt(value, 100, 599, &r.status);
        } else if (key == "error") {
            r.error = value;
            ok = !value.empty();
        } else if (key == "drop") {
            r.action = Action::Drop;
        } else if (key == "truncate") {
            r.action = Action::Truncate;
        } else if (key == "drop-reply") {
            r.action = Action::DropReply;
        } else if (key == "nonjson") {
            r.action = Action::NonJson;
        } else if (key == "shift") {
            r.action = Action::Shift;
            ok = toInt(value, 1, 1000000000, &r.shiftBytes);
        } else if (key == "stall") {
            r.action = Action::Stall;
            ok = toInt(value, 0, 600000, &r.stallMs);
        } else if (key == "count") {
            ok = toInt(value, 1, 1000000, &r.count);
        } else if (key == "after") {
            ok = toInt(value, 0, 1000000, &r.after);
        } else {
            *why = "unknown fault key '" + key + "'";
            return std::nullopt;
        }
        if (!ok) {
            *why = "bad value for fault key '" + key + "'";
            return std::nullopt;
        }
    }
    if (!validate(r, why))
        return std::nullopt;
    return r;
}

std::optional<FaultRule> FaultRule::fromJson(const nlohmann::json& j, std::string* why) {
    std::string dummy;
    if (!why)
        why = &dummy;
    if (!j.is_object()) {
        *why = "a fault is a JSON object";
        return std::nullopt;
    }
    if (j.contains("rule")) {
        if (!j["rule"].is_string()) {
            *why = "rule must be text";
            return std::nullopt;
        }
        return parse(j["rule"].get<std::string>(), why);
    }
    FaultRule r;
    try {
        r.path = j.value("path", "");
        r.method = j.value("method", "");
        std::string action = j.value("action", "status");
        if (action == "status") {
            r.action = Action::Status;
        } else if (action == "drop") {
            r.action = Action::Drop;
        } else if (action == "stall") {
            r.action = Action::Stall;
        } else if (action == "truncate") {
            r.action = Action::Truncate;
        } else if (action == "drop-reply") {
            r.action = Action::DropReply;
        } else if (action == "nonjson") {
            r.action = Action::NonJson;
        } else if (action == "shift") {
            r.action = Action::Shift;
        } else {
            *why = "action must be status, drop, stall, truncate, drop-reply, nonjson or shift";
            return std::nullopt;
        }
        // A whole number that fits; anything else (1e300, 2.5, 2^40) is refused below.
        auto whole = [&](const char* key, int fallback) -> std::optional<int> {
            const auto found = j.find(key);
            if (found == j.end()) {
                return fallback;
            }
            if (!found->is_number()) {
                throw nlohmann::json::type_error::create(302, std::string(key) + " is no number",
                                                         &*found);
            }
            if (!found->is_number_integer()) {
                return std::nullopt;
            }
            const auto value = found->get<std::int64_t>();
            if (found->is_number_unsigned() && found->get<std::uint64_t>() > 1'000'000'000) {
                return std::nullopt;
            }
            if (value < -1'000'000'000 || value > 1'000'000'000) {
                return std::nullopt;
            }
            return static_cast<int>(value);
        };
        const auto status = whole("status", 503), stallMs = whole("stallMs", 0),
                   shiftBytes = whole("shiftBytes", 1), count = whole("count", 1),
                   after = whole("after", 0);
        if (!status || !stallMs || !shiftBytes || !count || !after) {
            *why = "fault values out of range";
            return std::nullopt;
        }
        r.status = *status;
        r.error = j.value("error", "fault_injected");
        r.stallMs = *stallMs;
        r.shiftBytes = *shiftBytes;
        r.count = *count;
        r.after = *after;
    } catch (const nlohmann::json::exception&) {
        *why = "fault fields have the wrong types";
        return std::nullopt;
    }
    if (r.status < 100 || r.status > 599 || r.count < 1 || r.after < 0 || r.stallMs < 0 ||
        r.shiftBytes < 1) {
        *why = "fault values out of range";
        return std::nullopt;
    }
    if (!validate(r, why))
        return std::nullopt;
    return r;
}

std::string FaultSwitch::add(FaultRule rule) {
    std::lock_guard lock(mutex_);
    rule.id = "fault-" + std::to_string(next_++);
    rule.hits = 0;
    rules_.push_back(rule);
    return rule.id;
}

bool FaultSwitch::remove(const std::string& id) {
    std::lock_guard lock(mutex_);
    auto n = std::erase_if(rules_, [&](const FaultRule& r) { return r.id == id; });
    return n > 0;
}

void FaultSwitch::clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
}

std::vector<FaultRule> FaultSwitch::list() {
    std::lock_guard lock(mutex_);
    return rules_;
}

std::optional<FaultRule> FaultSwitch::take(const std::string& method, const std::string& path) {
    std::lock_guard lock(mutex_);
    for (auto it = rules_.begin(); it != rules_.end(); ++it) {
        if (!it->method.empty() && it->method != method)
            continue;
        if (!globMatch(it->path, path))
            continue;
        ++it->hits;
        if (it->hits <= it->after)
            return std::nullopt;
        FaultRule applied = *it;
        if (it->hits >= it->after + it->count)
            rules_.erase(it);
        return applied;
    }
    return std::nullopt;
}

void FaultSwitch::watch(const std::string& glob) {
    std::lock_guard lock(mutex_);
    for (const auto& [watched, traffic] : watched_) {
        if (watched == glob)
            return;
    }
    watched_.emplace_back(glob, Traffic{});
}

void FaultSwitch::count(const std::string& path, std::size_t bodyBytes) {
    std::lock_guard lock(mutex_);
    for (auto& [glob, traffic] : watched_) {
        if (globMatch(glob, path)) {
            ++traffic.requests;
            traffic.bodyBytes += static_cast<std::int64_t>(bodyBytes);
        }
    }
}

FaultSwitch::Traffic FaultSwitch::traffic(const std::string& glob) {
    std::lock_guard lock(mutex_);
    for (const auto& [watched, traffic] : watched_) {
        if (watched == glob)
            return traffic;
    }
    return {};
}

bool FaultSwitch::globMatch(const std::string& p, const std::string& t) {
    // Iterative wildcard match with backtracking to the last '*'.
    size_t pi = 0, ti = 0, star = std::string::npos, mark = 0;
    while (ti < t.size()) {
        if (pi < p.size() && p[pi] == '*') {
            star = pi++;
            mark = ti;
        } else if (pi < p.size() && p[pi] == t[ti]) {
            ++pi;
            ++ti;
        } else if (star != std::string::npos) {
            pi = star + 1;
            ti = ++mark;
        } else {
            return false;
        }
    }
    while (pi < p.size() && p[pi] == '*')
        ++pi;
    return pi == p.size();
}

}  // namespace pavix::devserver
