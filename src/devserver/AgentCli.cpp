#include "devserver/AgentCli.h"

#include "devserver/AgentKey.h"
#include "devserver/Options.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <ostream>
#include <sstream>

namespace pavix::devserver::AgentCli {

using json = nlohmann::json;

namespace {

const char* kUsage =
    R"(usage: pavix-devserver agent [--server URL] [--data DIR | --key KEY] COMMAND ...

  --server URL                the service (default $PAVIX_DEVSERVER, else http://127.0.0.1:8640)
  --data DIR                  the service's data folder, which keeps the agent key (default the
                              service's default folder)
  --key KEY                   the agent key itself (default $PAVIX_AGENT_KEY, else from DIR)

commands:
  status                                  service address and settings
  pair-code                               create a pairing code; prints "code ..." and "link ..."
  devices                                 paired devices and their state
  send METHOD [JSON-ARGS] [--device ID] [--timeout S]
                                          send a command and wait for its result; JSON-ARGS is
                                          a list, or an object taken as the first argument
                                          (the device defaults to the only connected one)
  commands [--device ID]                  recent commands and their outcome
  capture-id [--device ID]                issue a capture id for "startRecording"
  recordings [--all]                      published recordings (--all: every upload)
  download ID FILE                        save a recording's video
  fault add RULE | fault list | fault remove ID | fault clear
                                          the fault switch; RULE as for --fault, e.g.
                                          path=/local-browser/poll,status=503,count=2
  disconnect DEVICE | expire DEVICE | revoke DEVICE
                                          end the session / expire the access token / revoke
  diagnostics                             diagnostics reports received
  settings [KEY=VALUE ...]                show or change minimumAppVersion, latestAppVersion,
                                          sessionsDisabled, pollHoldMs, captureMs
)";

struct Cli {
    std::string server;
    std::string key;
    std::ostream& out;
    std::ostream& err;

    struct Result {
        int status = 0;  // 0: no reply
        json body;
        std::string raw;
    };

    Result call(const std::string& method, const std::string& path, const json* body = nullptr,
                int readTimeoutS = 30) {
        httplib::Client c(server);
        c.set_default_headers({{AgentKey::kHeader, key}});
        c.set_connection_timeout(5);
        c.set_read_timeout(readTimeoutS);
        httplib::Result r = method == "GET" ? c.Get(path)
                            : method == "DELETE"
                                ? c.Delete(path)
                                : c.Post(path, body ? body->dump() : "{}", "application/json");
        Result out;
        if (!r) {
            err << "pavix-devserver agent: no reply from " << server << path << " ("
                << httplib::to_string(r.error()) << ")\n";
            return out;
        }
        out.status = r->status;
        out.raw = r->body;
        out.body = json::parse(r->body, nullptr, false);
        return out;
    }

    // Prints a refusal and returns its exit code.
    int refused(const Result& r) {
        if (r.status == 0)
            return 2;
        err << "refused (" << r.status << "): " << (r.body.is_discarded() ? r.raw : r.body.dump())
            << "\n";
        return 1;
    }

    static std::string when(const json& ms) {
        if (!ms.is_number())
            return "-";
        std::time_t t = static_cast<std::time_t>(ms.get<int64_t>() / 1000);
        std::tm tm{};
        localtime_r(&t, &tm);
        std::ostringstream s;
        s << std::put_time(&tm, "%H:%M:%S");
        return s.str();
    }

    // The only connected device, when no --device was given.
    std::string defaultDevice() {
        auto r = call("GET", "/agent/devices");
        if (r.status != 200)
            return {};
        std::vector<std::string> live;
        for (auto& d : r.body["devices"]) {
            if (d.value("session", false))
                live.push_back(d["deviceId"]);
        }
        if (live.size() == 1)
            return live[0];
        err << (live.empty() ? "no device is connected; pair one first"
                             : "several devices are connected; choose one with --device ID")
            << "\n";
        return {};
    }
};

// Removes "--name value" from args; returns the value or empty.
std::string takeOption(std::vector<std::string>& args, const std::string& name) {
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == name) {
            std::string v = args[i + 1];
            args.erase(args.begin() + static_cast<long>(i),
                       args.begin() + static_cast<long>(i) + 2);
            return v;
        }
    }
    return {};
}

bool takeFlag(std::vector<std::string>& args, const std::string& name) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name) {
            args.erase(args.begin() + static_cast<long>(i));
            return true;
        }
    }
    return false;
}

}  // namespace

int run(const std::vector<std::string>& argsIn, std::ostream& out, std::ostream& err) {
    std::vector<std::string> args = argsIn;
    std::string server = takeOption(args, "--server");
    if (server.empty()) {
        const char* env = std::getenv("PAVIX_DEVSERVER");
        server = env && *env ? env : "http://127.0.0.1:8640";
    }
    while (!server.empty() && server.back() == '/')
        server.pop_back();
    std::string key = takeOption(args, "--key");
    std::string dataDir = takeOption(args, "--data");
    if (key.empty() && dataDir.empty()) {
        const char* env = std::getenv("PAVIX_AGENT_KEY");
        key = env ? env : "";
    }
    if (key.empty()) {
        key = AgentKey::read(dataDir.empty() ? Options::defaultDataDir() : dataDir).value_or("");
    }
    Cli cli{server, key, out, err};
    if (args.empty() || args[0] == "help" || args[0] == "--help") {
        (args.empty() ? err : out) << kUsage;
        return args.empty() ? 2 : 0;
    }
    std::string cmd = args[0];
    args.erase(args.begin());

    if (cmd == "status") {
        auto r = cli.call("GET", "/agent/status");
        if (r.status != 200)
            return cli.refused(r);
        out << r.body.dump(2) << "\n";
        return 0;
    }
    if (cmd == "pair-code") {
        auto r = cli.call("POST", "/agent/pairing-codes");
        if (r.status != 200)
            return cli.refused(r);
        out << "code " << r.body["code"].get<std::string>() << "\n"
            << "link " << r.body["setupLink"].get<std::string>() << "\n"
            << "expires " << Cli::when(r.body["expiresAt"]) << "\n";
        return 0;
    }
    if (cmd == "devices") {
        auto r = cli.call("GET", "/agent/devices");
        if (r.status != 200)
            return cli.refused(r);
        if (r.body["devices"].empty())
            out << "no devices paired\n";
        for (auto& d : r.body["devices"]) {
            out << d["deviceId"].get<std::string>() << "  " << std::left << std::setw(10)
                << d["state"].get<std::string>() << "  last seen " << Cli::when(d["lastSeen"])
                << "  " << d["name"].get<std::string>() << "\n";
        }
        return 0;
    }
    if (cmd == "send") {
        std::string device = takeOption(args, "--device");
        std::string timeoutText = takeOption(args, "--timeout");
        if (args.empty() || args.size() > 2) {
            err << "usage: send METHOD [JSON-ARGS] [--device ID] [--timeout S]\n";
            return 2;
        }
        json argList = json::array();
        if (args.size() == 2) {
            json parsed = json::parse(args[1], nullptr, false);
            if (parsed.is_discarded()) {
                err << "JSON-ARGS is not JSON: " << args[1] << "\n";
                return 2;
            }
            argList = parsed.is_array() ? parsed : json::array({parsed});
        }
        double timeoutS = 30;
        if (!timeoutText.empty()) {
            try {
                timeoutS = std::stod(timeoutText);
            } catch (...) {
                err << "--timeout takes seconds\n";
                return 2;
            }
        }
        if (device.empty())
            device = cli.defaultDevice();
        if (device.empty())
            return 2;
        json body = {{"method", args[0]},
                     {"args", argList},
                     {"timeoutMs", static_cast<int64_t>(timeoutS * 1000)}};
        auto r = cli.call("POST", "/agent/devices/" + device + "/commands", &body,
                          static_cast<int>(timeoutS) + 15);
        if (r.status == 504) {
            err << "timed out after " << timeoutS << " s (" << r.body.value("state", "?") << ")\n";
            return 3;
        }
        if (r.status != 200)
            return cli.refused(r);
        out << r.body["reply"].dump(2) << "\n";
        return r.body["reply"].contains("error") ? 1 : 0;
    }
    if (cmd == "commands") {
        std::string device = takeOption(args, "--device");
        auto r = cli.call("GET", "/agent/commands" + (device.empty() ? "" : "?deviceId=" + device));
        if (r.status != 200)
            return cli.refused(r);
        for (auto& c : r.body["commands"]) {
            out << c["id"].get<std::string>() << "  " << std::left << std::setw(10)
                << c["state"].get<std::string>() << "  " << c["method"].get<std::string>() << "\n";
        }
        return 0;
    }
    if (cmd == "capture-id") {
        std::string device = takeOption(args, "--device");
        if (device.empty())
            device = cli.defaultDevice();
        if (device.empty())
            return 2;
        json body = {{"deviceId", device}};
        auto r = cli.call("POST", "/agent/captures", &body);
        if (r.status != 200)
            return cli.refused(r);
        out << r.body["captureId"].get<std::string>() << "\n";
        return 0;
    }
    if (cmd == "recordings") {
        bool all = takeFlag(args, "--all");
        auto r = cli.call("GET", std::string("/agent/recordings") + (all ? "?all=1" : ""));
        if (r.status != 200)
            return cli.refused(r);
        if (r.body["recordings"].empty())
            out << "no recordings\n";
        for (auto& u : r.body["recordings"]) {
            out << u["id"].get<std::string>() << "  " << std::left << std::setw(9)
                << u["state"].get<std::string>() << "  " << u["bytes"].get<int64_t>() << " bytes  "
                << u["media"].value("width", 0) << "x" << u["media"].value("height", 0) << "  "
                << u["media"].value("durationMs", 0) << " ms\n";
        }
        return 0;
    }
    if (cmd == "download") {
        if (args.size() != 2) {
            err << "usage: download ID FILE\n";
            return 2;
        }
        httplib::Client c(server);
        c.set_default_headers({{AgentKey::kHeader, cli.key}});
        c.set_read_timeout(120);
        std::ofstream file(args[1], std::ios::binary);
        if (!file) {
            err << "cannot write " << args[1] << "\n";
            return 2;
        }
        int status = 0;
        std::string errorBody;
        auto r = c.Get(
            "/agent/recordings/" + args[0] + "/video",
            [&](const httplib::Response& res) {
                status = res.status;
                return true;
            },
            [&](const char* data, size_t len) {
                if (status == 200) {
                    file.write(data, static_cast<std::streamsize>(len));
                } else {
                    errorBody.append(data, len);
                }
                return true;
            });
        file.close();
        if (!r) {
            err << "download failed: " << httplib::to_string(r.error()) << "\n";
            return 2;
        }
        if (status != 200) {
            std::remove(args[1].c_str());
            err << "refused (" << status << "): " << errorBody << "\n";
            return 1;
        }
        out << "saved " << args[1] << "\n";
        return 0;
    }
    if (cmd == "fault") {
        std::string sub = args.empty() ? "list" : args[0];
        if (sub == "add" && args.size() == 2) {
            json body = {{"rule", args[1]}};
            auto r = cli.call("POST", "/agent/faults", &body);
            if (r.status != 200)
                return cli.refused(r);
            out << "armed " << r.body["id"].get<std::string>() << "\n";
            return 0;
        }
        if (sub == "list") {
            auto r = cli.call("GET", "/agent/faults");
            if (r.status != 200)
                return cli.refused(r);
            if (r.body["faults"].empty())
                out << "no faults armed\n";
            for (auto& f : r.body["faults"])
                out << f.dump() << "\n";
            return 0;
        }
        if (sub == "clear") {
            auto r = cli.call("DELETE", "/agent/faults");
            return r.status == 200 ? 0 : cli.refused(r);
        }
        if (sub == "remove" && args.size() == 2) {
            auto r = cli.call("DELETE", "/agent/faults/" + args[1]);
            return r.status == 200 ? 0 : cli.refused(r);
        }
        err << "usage: fault add RULE | fault list | fault remove ID | fault clear\n";
        return 2;
    }
    if (cmd == "disconnect" || cmd == "expire" || cmd == "revoke") {
        if (args.size() != 1) {
            err << "usage: " << cmd << " DEVICE\n";
            return 2;
        }
        std::string action = cmd == "expire" ? "expire-access" : cmd;
        auto r = cli.call("POST", "/agent/devices/" + args[0] + "/" + action);
        if (r.status != 200)
            return cli.refused(r);
        out << r.body.dump() << "\n";
        return 0;
    }
    if (cmd == "diagnostics") {
        auto r = cli.call("GET", "/agent/diagnostics");
        if (r.status != 200)
            return cli.refused(r);
        for (auto& d : r.body["diagnostics"])
            out << d.dump() << "\n";
        return 0;
    }
    if (cmd == "settings") {
        if (args.empty()) {
            auto r = cli.call("GET", "/agent/settings");
            if (r.status != 200)
                return cli.refused(r);
            out << r.body.dump(2) << "\n";
            return 0;
        }
        json body = json::object();
        for (auto& a : args) {
            auto eq = a.find('=');
            if (eq == std::string::npos) {
                err << "settings takes KEY=VALUE\n";
                return 2;
            }
            std::string k = a.substr(0, eq), v = a.substr(eq + 1);
            json parsed = json::parse(v, nullptr, false);
            body[k] = (k == "minimumAppVersion" || k == "latestAppVersion" || parsed.is_discarded())
                          ? json(v)
                          : parsed;
        }
        auto r = cli.call("POST", "/agent/settings", &body);
        if (r.status != 200)
            return cli.refused(r);
        out << r.body.dump(2) << "\n";
        return 0;
    }
    err << "unknown command '" << cmd << "'\n" << kUsage;
    return 2;
}

}  // namespace pavix::devserver::AgentCli
