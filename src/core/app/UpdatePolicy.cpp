#include "core/app/UpdatePolicy.h"

#include <nlohmann/json.hpp>
#include <regex>

#include "core/app/AppVersion.h"

namespace pavix::UpdatePolicy {

std::optional<std::string> latestVersion(std::string_view manifest) {
    const auto json = nlohmann::json::parse(manifest, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    const auto latest = json.find("latest");
    if (latest == json.end() || !latest->is_object()) {
        return std::nullopt;
    }
    const auto version = latest->find("version");
    if (version == latest->end() || !version->is_string()) {
        return std::nullopt;
    }
    static const std::regex pattern("^[0-9]+(\\.[0-9]+){1,3}$");
    auto text = version->get<std::string>();
    if (!std::regex_match(text, pattern)) {
        return std::nullopt;
    }
    return text;
}

UpdateDecision decision(std::string_view current, const std::optional<std::string>& latest,
                        const std::optional<std::string>& minimum, bool recording) {
    if (recording) {
        return UpdateDecision::deferred();
    }
    const AppVersion running(current);
    if (minimum && running < AppVersion(*minimum)) {
        return UpdateDecision::required(latest ? *latest : *minimum);
    }
    if (latest && running < AppVersion(*latest)) {
        return UpdateDecision::available(*latest);
    }
    return UpdateDecision::none();
}

bool shouldCheck(std::optional<Clock::time_point> lastCheck, Clock::time_point now,
                 bool recording) {
    if (recording) {
        return false;
    }
    return !lastCheck || now - *lastCheck >= checkInterval;
}

}  // namespace pavix::UpdatePolicy
