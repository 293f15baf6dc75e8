#include "core/session/CommandEnvelope.h"

#include "core/runtime/Uuid.h"

namespace pavix::CommandEnvelope {

std::optional<Command> parse(const nlohmann::json& reply) {
    if (!reply.is_object()) {
        return std::nullopt;
    }
    auto command = reply.find("command");
    if (command == reply.end() || !command->is_object()) {
        return std::nullopt;
    }
    auto id = command->find("id");
    if (id == command->end() || !id->is_string() || !Uuid::isValid(id->get<std::string>())) {
        return std::nullopt;
    }
    Command out;
    out.id = id->get<std::string>();
    auto method = command->find("method");
    if (method != command->end() && method->is_string()) {
        out.method = method->get<std::string>();
    }
    auto args = command->find("args");
    if (args != command->end() && args->is_array()) {
        out.args = *args;
    }
    return out;
}

nlohmann::json namedArguments(const nlohmann::json& args) {
    if (args.is_array() && !args.empty() && args.front().is_object()) {
        return args.front();
    }
    return nlohmann::json::object();
}

std::string agentErrorText(const std::string& description) {
    for (const char* prefix : {"local_sign_in_required", "local_method_forbidden"}) {
        if (description.rfind(prefix, 0) == 0) {
            return description;
        }
    }
    return "local_browser_action_failed";
}

}  // namespace pavix::CommandEnvelope
