// A poll reply as the service sends it, read the way the command loop reads it.

#include <nlohmann/json.hpp>

#include "FuzzCheck.h"
#include "core/runtime/Uuid.h"
#include "core/session/CommandEnvelope.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix;
    const auto body = fuzz::text(data, size);
    const auto reply = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
    if (reply.is_discarded()) {
        return 0;
    }
    const auto command = CommandEnvelope::parse(reply);
    if (!command) {
        return 0;
    }
    // The id is answered to at "result/<id>": it must be a UUID and nothing more.
    PAVIX_FUZZ_CHECK(Uuid::isValid(command->id), "a command id that is not a UUID");
    PAVIX_FUZZ_CHECK(command->id == reply["command"]["id"].get<std::string>(),
                     "the command id is not the one that arrived");
    PAVIX_FUZZ_CHECK(command->args.is_array(), "command arguments that are not a list");
    const auto named = CommandEnvelope::namedArguments(command->args);
    PAVIX_FUZZ_CHECK(named.is_object(), "named arguments that are not an object");
    // What a failure of this method would tell the agent.
    const auto told = CommandEnvelope::agentErrorText(command->method);
    PAVIX_FUZZ_CHECK(told == command->method || told == "local_browser_action_failed",
                     "an error text that is neither passed through nor the generic code");
    // The result body the loop builds around a value: it must serialise.
    nlohmann::json result = {{"value", command->args}, {"meta", named}};
    (void)result.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return 0;
}
