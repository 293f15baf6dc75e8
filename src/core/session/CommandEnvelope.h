#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace pavix {

// One agent command as taken from a poll reply.
struct Command {
    std::string id;      // exactly as it arrived; a UUID
    std::string method;  // empty when the reply had none
    nlohmann::json args = nlohmann::json::array();
};

// How commands are read from the poll and how failures are told to the agent.
namespace CommandEnvelope {

// The command of a poll reply, or none when there is nothing to do: no command object, or an
// id that is missing or not a UUID.
std::optional<Command> parse(const nlohmann::json& reply);

// The named arguments of a session method: the first element of args when it is an object.
nlohmann::json namedArguments(const nlohmann::json& args);

// The error text the agent sees: codes it can act on pass unchanged, anything else is the
// generic failure code.
std::string agentErrorText(const std::string& description);

}  // namespace CommandEnvelope
}  // namespace pavix
