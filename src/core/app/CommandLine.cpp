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
        } else if (argument == "--retry") {
            line.retry = value();
        } else if (argument == "--delete") {
            line.remove = value();
        } else if (argument == "--record") {
            line.record = true;
        } else if (argument == "--library") {
            line.library = true;
        } else if (argument == "--support") {
            line.support = true;
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
        } else if (argument.rfind("pavix-mac:", 0) == 0) {
            if (line.link) {
                throw std::invalid_argument("Give one setup link at a time.");
            }
            line.link = argument;
        } else if (argument.rfind("-", 0) == 0) {
            throw std::invalid_argument("Unknown option " + argument + ".");
        } else {
            throw std::invalid_argument("Not a Pavix setup link: " + argument + ".");
        }
    }
    int actions = int(line.pair) + int(line.record) + int(line.library) + int(line.support) +
                  int(line.retry.has_value()) + int(line.remove.has_value());
    if (actions > 1) {
        throw std::invalid_argument(
            "Choose one of --pair, --record, --library, --retry, --delete and --support.");
    }
    if (line.link && actions > 0) {
        throw std::invalid_argument(
            "A setup link opens in the window; leave out --pair, --record "
            "and the library switches.");
    }
    return line;
}

std::string CommandLine::usage() {
    return "usage: pavix [--server URL] [--code CODE] [--approve] [SETUP-LINK]\n"
           "       pavix [--server URL] [--code CODE] --pair [--approve]\n"
           "       pavix [--server URL] --record | --library | --retry ID | --delete ID | "
           "--support\n"
           "       pavix --check-permission | --list-sources | --snapshot PATH\n"
           "\n"
           "Without --pair, --record or a library switch, pavix opens its window and the\n"
           "floating bar. When Pavix already runs, it shows that window instead and hands it\n"
           "the setup link (pavix-mac://pair?server=…&code=…), if one is given.\n"
           "\n"
           "  --server URL   the Pavix service to pair with (https, or http on localhost)\n"
           "  --code CODE    the pairing code your agent gave you\n"
           "  --pair         pair now and serve the agent's commands until interrupted, without\n"
           "                 a window\n"
           "  --approve      approve the next recording, as the approval button does\n"
           "  --record       record the last chosen source yourself until Ctrl-C, then upload\n"
           "  --library      list the recordings in your local library\n"
           "  --retry ID     upload a saved recording again, resuming where the service stands\n"
           "  --delete ID    move a recording's local copy to the Trash (the cloud copy stays)\n"
           "  --support      print the support summary (versions, ids, stages, timings)\n"
           "  --check-permission  say whether windows can be recorded here (exit 2 when not)\n"
           "  --list-sources      write the window and display counts to\n"
           "                      /tmp/pavix-list-sources.txt\n"
           "  --snapshot PATH     render the floating bar to a PNG file\n"
           "  --version      print the version\n";
}

}  // namespace pavix
