#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pavix {

// The switches of the pavix executable.
struct CommandLine {
    std::optional<std::string> server;    // --server URL
    std::optional<std::string> code;      // --code CODE
    bool pair = false;                    // --pair: the command-line pairing run
    bool approve = false;                 // --approve: approve the next recording
    bool listSources = false;             // --list-sources
    bool checkPermission = false;         // --check-permission
    std::optional<std::string> snapshot;  // --snapshot PATH
    std::optional<std::string> link;      // a setup link (pavix-mac:…), as a browser passes it
    bool record = false;                  // --record: the user's own recording, until Ctrl-C
    bool library = false;                 // --library: list the local library
    std::optional<std::string> retry;     // --retry ID: upload a saved recording again
    std::optional<std::string> remove;    // --delete ID: move a local copy to the Trash
    bool support = false;                 // --support: print the support summary
    bool help = false;
    bool version = false;

    // Throws std::invalid_argument with a sentence for an unknown switch or a missing value.
    static CommandLine parse(const std::vector<std::string>& arguments);
    static std::string usage();
};

}  // namespace pavix
