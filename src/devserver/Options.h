#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pavix::devserver {

// The service's start-up flags.
struct Options {
    std::string host = "127.0.0.1";  // loopback only; not configurable from the command line
    int port = 8640;                 // 0: pick a free one
    std::string dataDir;             // empty: defaultDataDir()
    int64_t pollHoldMs = 25000;      // how long a poll is held when nothing is queued
    int64_t codeTtlMs = 10 * 60 * 1000;
    int64_t accessTtlMs = 60 * 60 * 1000;
    int64_t refreshTtlMs = 30LL * 24 * 60 * 60 * 1000;
    int64_t refreshGraceMs = 60 * 1000;
    std::optional<int64_t> captureMs;  // "captureMs" in the desktop-recording/begin reply
    std::string minimumAppVersion = "0.0.0";
    std::string latestAppVersion = "0.1.0";
    bool sessionsDisabled = false;
    std::vector<std::string> faults;  // fault rules armed at start
    bool benchSink = false;           // accept the 256 MiB raw body of the upload benchmark
    bool verbose = false;
    bool printCode = true;  // print a fresh pairing code at start

    // $XDG_DATA_HOME/pavix-devserver, else ~/.local/share/pavix-devserver.
    static std::string defaultDataDir();
    // Parses the flags of "serve" (argv without the program and subcommand). Throws
    // std::invalid_argument with a message for a bad flag.
    static Options parse(const std::vector<std::string>& args);
    static const char* usage();
};

}  // namespace pavix::devserver
