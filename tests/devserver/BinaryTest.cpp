// The real binary: its start-up lines, the --fault flag, the agent command line and a clean stop.
#include "DevServerFixture.h"
#include "devserver/AgentKey.h"
#include "support/ChildProcess.h"

#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace devtest {
namespace {

using pavix::test::ChildProcess;
using namespace std::chrono_literals;

struct CliResult {
    int code;
    std::string out;
};

class BinaryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server = std::make_unique<ChildProcess>(std::vector<std::string>{
            PAVIX_DEVSERVER_BINARY, "--port", "0", "--data", dir.path.string(), "--poll-hold-ms",
            "500", "--fault", "path=/local-browser/version,status=503,count=1"});
        for (auto l = server->nextLine(10s); l && *l != "ready"; l = server->nextLine(10s)) {
            auto sp = l->find(' ');
            if (sp != std::string::npos)
                lines[l->substr(0, sp)] = l->substr(sp + 1);
        }
        ASSERT_TRUE(lines.count("port")) << "no port line";
        base = "http://127.0.0.1:" + lines["port"];
    }

    // The agent command line, which reads the key from the service's data folder.
    CliResult cli(std::vector<std::string> args) {
        std::vector<std::string> full = {
            PAVIX_DEVSERVER_BINARY, "agent", "--server", base, "--data", dir.path.string()};
        full.insert(full.end(), args.begin(), args.end());
        ChildProcess c(full);
        const int code = c.wait(30s).value_or(-1);
        return {code, c.output()};
    }

    TempDir dir;
    std::unique_ptr<ChildProcess> server;
    std::map<std::string, std::string> lines;
    std::string base;
};

// It prints its addresses and a pairing code. The agent's side answers only the key, which the
// service keeps for its owner alone; the console's address hands it to the browser as a
// same-site cookie. The service listens on loopback only, and stops cleanly when asked.
TEST_F(BinaryTest, PrintsItsAddressesAnswersTheAgentOnlyWithItsKeyOnLoopbackAndStops) {
    const auto keyFile = dir.path / "agent-key";
    struct stat info {};
    ASSERT_EQ(::stat(keyFile.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    const auto key = ds::AgentKey::read(dir.path.string()).value_or("");
    ASSERT_EQ(key.rfind("pvx_ak_", 0), 0u) << key;
    EXPECT_EQ(ds::AgentKey::read(lines["data"]), key);
    EXPECT_EQ(lines["console"], base + "/?key=" + key);
    EXPECT_EQ(lines["server"], base);
    EXPECT_EQ(lines["code"].size(), 8u);
    EXPECT_EQ(lines["link"], ds::UrlCodec::setupLink(base, lines["code"]));
    EXPECT_EQ(FakeApp(base).pair(lines["code"]).status, 200);
    httplib::Client plain(base);
    EXPECT_EQ(plain.Get("/local-browser/version")->status, 503);  // armed by --fault
    EXPECT_EQ(plain.Get("/local-browser/version")->status, 200);
    auto page = plain.Get("/");
    ASSERT_TRUE(page);
    EXPECT_NE(page->body.find("<html"), std::string::npos);

    struct Case {
        std::string what;
        httplib::Headers headers;
        int status;
    };
    for (const auto& c : std::vector<Case>{
             {"no key", {}, 401},
             {"a wrong key", {{"X-Pavix-Agent-Key", "pvx_ak_0"}}, 401},
             {"the key with one more letter", {{"X-Pavix-Agent-Key", key + "0"}}, 401},
             {"the key twice", {{"X-Pavix-Agent-Key", key}, {"X-Pavix-Agent-Key", key}}, 401},
             {"the key in another cookie", {{"Cookie", "other=" + key}}, 401},
             {"the key", {{"X-Pavix-Agent-Key", key}}, 200},
             {"the console's cookie", {{"Cookie", "a=1; pavix_agent_key=" + key}}, 200},
         }) {
        httplib::Client client(base);
        for (const auto& path : {"/agent/devices", "/agent/recordings"}) {
            auto r = client.Get(path, c.headers);
            ASSERT_TRUE(r) << c.what;
            EXPECT_EQ(r->status, c.status) << c.what << " " << path;
            if (c.status == 401) {
                EXPECT_EQ(json::parse(r->body)["error"], "agent_key_required");
            }
        }
    }
    // The console's address sets the cookie and takes the key out of the address bar; a
    // wrong key gets the page, which then says what it needs.
    httplib::Client browser(base);
    auto handed = browser.Get("/?key=" + key);
    ASSERT_TRUE(handed);
    EXPECT_EQ(handed->status, 303);
    EXPECT_EQ(handed->get_header_value("Location"), "/");
    EXPECT_EQ(handed->get_header_value("Set-Cookie"),
              "pavix_agent_key=" + key + "; Path=/; HttpOnly; SameSite=Strict");
    auto wrong = browser.Get("/?key=pvx_ak_0");
    ASSERT_TRUE(wrong);
    EXPECT_EQ(wrong->status, 200);
    EXPECT_FALSE(wrong->has_header("Set-Cookie"));
    // A command line without the key hears why.
    ChildProcess refused(
        {PAVIX_DEVSERVER_BINARY, "agent", "--server", base, "--key", "pvx_ak_0", "devices"});
    EXPECT_NE(refused.wait(30s).value_or(0), 0);

    // Bound to 127.0.0.1 and nothing else: the kernel's own tables of listening sockets.
    char port[8];
    std::snprintf(port, sizeof port, ":%04X", std::stoi(lines["port"]));
    std::vector<std::string> bound;
    for (const char* name : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream table(name);
        for (std::string line; std::getline(table, line);) {
            std::istringstream fields(line);
            std::string slot, local, remote, state;
            fields >> slot >> local >> remote >> state;
            if (state == "0A" && local.size() > 5 && local.substr(local.size() - 5) == port) {
                bound.push_back(local);
            }
        }
    }
    EXPECT_EQ(bound, std::vector<std::string>{std::string("0100007F") + port});

    server->signal(SIGTERM);
    EXPECT_EQ(server->wait(10s), 0);
}

TEST_F(BinaryTest, TheAgentCommandLineDrivesADevice) {
    auto code = cli({"pair-code"});
    ASSERT_EQ(code.code, 0);
    ASSERT_EQ(code.out.rfind("code ", 0), 0u) << code.out;
    std::string pairing = code.out.substr(5, 8);
    EXPECT_NE(code.out.find("\nlink pavix-mac://pair?server="), std::string::npos);

    FakeApp app(base);
    ASSERT_EQ(app.pair(pairing, "cli-box").status, 200);
    auto devices = cli({"devices"});
    EXPECT_EQ(devices.code, 0);
    EXPECT_NE(devices.out.find(app.deviceId()), std::string::npos);
    EXPECT_NE(devices.out.find("cli-box"), std::string::npos);

    // The device answers one command. (Listing and downloading recordings from the command line
    // are exercised end to end, byte for byte, by the integration tests.)
    std::atomic<bool> stop{false};
    std::thread device([&] {
        while (!stop) {
            auto p = app.post("poll");
            if (!p.body.contains("command"))
                continue;
            auto cmd = p.body["command"];
            app.post("result/" + cmd["id"].get<std::string>(),
                     okReply({{"echo", cmd["args"]}, {"method", cmd["method"]}}));
        }
    });
    auto sent = cli({"send", "selectSource", R"({"sourceId":"window-42"})", "--timeout", "5"});
    stop = true;
    device.join();
    EXPECT_EQ(sent.code, 0) << sent.out;
    auto reply = json::parse(sent.out);
    EXPECT_EQ(reply["value"]["method"], "selectSource");
    EXPECT_EQ(reply["value"]["echo"], json::parse(R"([{"sourceId":"window-42"}])"));

    auto timeout = cli({"send", "screenshot", "--timeout", "0.3"});
    EXPECT_EQ(timeout.code, 3);

    EXPECT_EQ(cli({"fault", "add", "path=/local-browser/poll,status=500"}).code, 0);
    EXPECT_NE(cli({"fault", "list"}).out.find("/local-browser/poll"), std::string::npos);
    EXPECT_EQ(cli({"fault", "clear"}).code, 0);
    EXPECT_EQ(cli({"fault", "list"}).out, "no faults armed\n");
    EXPECT_EQ(cli({"disconnect", app.deviceId()}).code, 0);
    EXPECT_EQ(app.post("poll").body["error"], "local_browser_disconnected");
    EXPECT_EQ(cli({"send", "screenshot"}).code, 2);  // no device connected
}

}  // namespace
}  // namespace devtest
