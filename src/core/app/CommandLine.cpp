#include "core/app/CommandLine.h"

#include <stdexcept>

namespace pavix {

CommandLine CommandLine::parse(const std::vector<std::string>& arguments) {
    CommandLine line;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto& argument = arguments[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= arguments.size() || arguments[i + 1].rfind("--", 0) == 0) {
                throw std::invalid_argument(argument + " needs a value.");
            }
            return arguments[++i];
        };
        if (argument == "--server") {
            line.server = value();
        } else if (argument == "--code") {
            line.code = value();
        } else if (argument == "--snapshot") {
            line.snapshot = value();
        } else if (argument == "--pair") {
            line.pair = true;
        } else if (argument == "--approve") {
            line.approve = true;
        } else if (argument == "--list-sources") {
            line.listSources = true;
        } else if (argument == "--check-permission") {
            line.checkPermission = true;
        } else if (argument == "--help" || argument == "-h") {
            line.help = true;
        } else if (argument == "--version") {
            line.version = true;
        } else {
            throw std::invalid_argument("Unknown option " + argument + ".");
        }
    }
    return line;
}

std::string CommandLine::usage() {
    return "usage: pavix [--server URL] [--code CODE] [--pair] [--approve]\n"
           "\n"
           "  --server URL   the Pavix service to pair with (https, or http on localhost)\n"
           "  --code CODE    the pairing code your agent gave you\n"
           "  --pair         pair now and serve the agent's commands until interrupted\n"
           "  --approve      approve the next recording, as the approval button does\n"
           "  --version      print the version\n";
}

}  // namespace pavix
