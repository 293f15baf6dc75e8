#include "devserver/Options.h"

#include "devserver/AppVersion.h"
#include "devserver/FaultSwitch.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace pavix::devserver {

std::string Options::defaultDataDir() {
    if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x) {
        return std::string(x) + "/pavix-devserver";
    }
    const char* home = std::getenv("HOME");
    std::string h = home && *home ? home : "";
    if (h.empty()) {
        if (auto* pw = getpwuid(getuid()))
            h = pw->pw_dir;
    }
    return h + "/.local/share/pavix-devserver";
}

const char* Options::usage() {
    return R"(usage: pavix-devserver [serve] [flags]
       pavix-devserver agent [--server URL] COMMAND ...   (see: pavix-devserver agent help)

Runs the Pavix service locally on 127.0.0.1: the app's "local-browser/" interface, the agent
API under "/agent/" and the console at "/".

flags:
  --port N                 port to listen on (default 8640; 0 picks a free one)
  --data DIR               data directory (default $XDG_DATA_HOME/pavix-devserver,
                           else ~/.local/share/pavix-devserver)
  --poll-hold-ms MS        how long "poll" is held when nothing is queued (default 25000)
  --code-ttl S             pairing code lifetime in seconds (default 600)
  --access-ttl S           access token lifetime in seconds (default 3600)
  --refresh-ttl S          refresh token lifetime in seconds (default 2592000)
  --refresh-grace-ms MS    how long after the latest rotation the refresh token it was made
                           from may rotate again, for a device whose replies were lost
                           (default 60000; 0: never)
  --capture-ms MS          "captureMs" to hand out with desktop-recording/begin (default none)
  --min-app-version V      below this X-Pavix-App-Version, answer 426 (default 0.0.0)
  --latest-app-version V   the latest app version (default 0.1.0)
  --sessions-disabled      refuse new sessions with desktop_sessions_disabled
  --fault RULE             arm a fault, e.g. path=/local-browser/poll,status=503,count=2
                           (actions: status=N [error=CODE], drop, stall=MS, truncate,
                           drop-reply, nonjson, shift=N; also count=N, after=N, method=M);
                           may repeat
  --bench-sink             accept bodies up to 512 MiB on /agent/bench/sink (benchmark)
  --no-code                do not create a pairing code at start
  --verbose                log every request to standard error
)";
}

namespace {

int64_t number(const std::string& flag, const std::string& v, int64_t lo, int64_t hi) {
    try {
        size_t used = 0;
        long long n = std::stoll(v, &used);
        if (used == v.size() && n >= lo && n <= hi)
            return n;
    } catch (...) {
    }
    throw std::invalid_argument("bad value for " + flag + ": " + v);
}

}  // namespace

Options Options::parse(const std::vector<std::string>& args) {
    Options o;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= args.size())
                throw std::invalid_argument(a + " needs a value");
            return args[++i];
        };
        if (a == "--port") {
            o.port = static_cast<int>(number(a, value(), 0, 65535));
        } else if (a == "--data") {
            o.dataDir = value();
        } else if (a == "--poll-hold-ms") {
            o.pollHoldMs = number(a, value(), 0, 600000);
        } else if (a == "--code-ttl") {
            o.codeTtlMs = number(a, value(), 1, 86400 * 365) * 1000;
        } else if (a == "--access-ttl") {
            o.accessTtlMs = number(a, value(), 1, 86400 * 365) * 1000;
        } else if (a == "--refresh-ttl") {
            o.refreshTtlMs = number(a, value(), 1, 86400LL * 3650) * 1000;
        } else if (a == "--refresh-grace-ms") {
            o.refreshGraceMs = number(a, value(), 0, 86400LL * 1000);
        } else if (a == "--capture-ms") {
            o.captureMs = number(a, value(), 1, 86400000);
        } else if (a == "--min-app-version" || a == "--latest-app-version") {
            std::string v = value();
            if (!AppVersion::isValid(v))
                throw std::invalid_argument("bad version for " + a);
            (a == "--min-app-version" ? o.minimumAppVersion : o.latestAppVersion) = v;
        } else if (a == "--sessions-disabled") {
            o.sessionsDisabled = true;
        } else if (a == "--fault") {
            std::string ruleText = value(), why;
            if (!FaultRule::parse(ruleText, &why))
                throw std::invalid_argument("--fault: " + why);
            o.faults.push_back(ruleText);
        } else if (a == "--bench-sink") {
            o.benchSink = true;
        } else if (a == "--no-code") {
            o.printCode = false;
        } else if (a == "--verbose") {
            o.verbose = true;
        } else {
            throw std::invalid_argument("unknown flag " + a);
        }
    }
    return o;
}

}  // namespace pavix::devserver
