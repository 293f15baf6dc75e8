// Command round trip on loopback: the agent posts a trivial command ("currentUrl") to the
// development service, pavix's command loop picks it up from its long poll, answers, and the
// agent's call returns. Prints the median, p99 and mean over 1000 commands.
#include <httplib.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"

using namespace std::chrono;
using pavix::test::ChildProcess;

namespace {

std::string lineValue(const ChildProcess& process, const std::string& prefix) {
    for (const auto& line : process.lines()) {
        if (line.rfind(prefix, 0) == 0) {
            return line.substr(prefix.size());
        }
    }
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    int count = argc > 1 ? std::atoi(argv[1]) : 1000;
    char pattern[] = "/tmp/pavix-bench.XXXXXX";
    std::filesystem::path scratch = ::mkdtemp(pattern);

    ChildProcess service(
        {PAVIX_DEVSERVER_BINARY, "--port", "0", "--data", (scratch / "service").string()});
    if (!service.waitForLine("ready", seconds(20))) {
        std::fprintf(stderr, "the development service did not start\n%s", service.output().c_str());
        return 1;
    }
    auto port = std::stoi(lineValue(service, "port "));
    ChildProcess app({PAVIX_BINARY, "--server", lineValue(service, "server "), "--code",
                      lineValue(service, "code "), "--pair"},
                     {{"XDG_CONFIG_HOME", (scratch / "config").string()},
                      {"XDG_STATE_HOME", (scratch / "state").string()}});
    if (!app.waitForLine("pavix: connected true", seconds(30))) {
        std::fprintf(stderr, "pavix did not connect\n%s", app.output().c_str());
        return 1;
    }

    httplib::Client agent("127.0.0.1", port);
    agent.set_read_timeout(30, 0);
    const auto console = lineValue(service, "console ");  // its address carries the agent key
    agent.set_default_headers({{"X-Pavix-Agent-Key", console.substr(console.find("?key=") + 5)}});
    auto devices = agent.Get("/agent/devices");
    auto list = nlohmann::json::parse(devices ? devices->body : "{}", nullptr, false);
    if (!list.is_object() || list["devices"].empty()) {
        std::fprintf(stderr, "no device listed\n");
        return 1;
    }
    auto path = "/agent/devices/" + list["devices"][0]["deviceId"].get<std::string>() + "/commands";
    nlohmann::json body = {
        {"method", "currentUrl"}, {"args", nlohmann::json::array()}, {"timeoutMs", 10000}};

    std::vector<double> millis;
    int failures = 0;
    for (int i = 0; i < count + 20; ++i) {
        auto start = steady_clock::now();
        auto reply = agent.Post(path, body.dump(), "application/json");
        double elapsed = duration<double, std::milli>(steady_clock::now() - start).count();
        if (!reply || reply->status != 200) {
            ++failures;
            continue;
        }
        if (i >= 20) {  // the first commands warm up connections on both sides
            millis.push_back(elapsed);
        }
    }
    std::sort(millis.begin(), millis.end());
    double mean = 0;
    for (double m : millis) {
        mean += m / static_cast<double>(millis.size());
    }
    auto at = [&](double q) { return millis[static_cast<std::size_t>(q * (millis.size() - 1))]; };
    std::printf("command round trip over loopback, %zu commands (%d failed)\n", millis.size(),
                failures);
    if (!millis.empty()) {
        std::printf("  median %.2f ms   p99 %.2f ms   mean %.2f ms   max %.2f ms\n", at(0.5),
                    at(0.99), mean, millis.back());
    }
    app.signal(SIGTERM);
    app.wait(seconds(10));
    std::filesystem::remove_all(scratch);
    return failures == 0 ? 0 : 1;
}
