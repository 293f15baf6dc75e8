// The pavix executable against the development service, on the real desktop session: pairing
// from the command line, serving the agent, ending the session on SIGTERM, and resuming with
// the credential kept in the Secret Service after a restart.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/DevServerProcess.h"

namespace pavix::test {
namespace {

using std::chrono::seconds;

class PavixSession : public ::testing::Test {
  protected:
    PavixSession() : home_(DevServerProcess::scratch("home")) {}
    ~PavixSession() override { std::filesystem::remove_all(home_); }

    std::unique_ptr<ChildProcess> pavix(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), PAVIX_BINARY);
        return std::make_unique<ChildProcess>(
            arguments, std::map<std::string, std::string>{{"XDG_CONFIG_HOME", home_ + "/config"},
                                                          {"XDG_STATE_HOME", home_ + "/state"}});
    }

    std::string home_;
};

TEST_F(PavixSession, PairsServesAndResumesAfterARestart) {
    DevServerProcess service;
    {
        auto app = pavix({"--server", service.server(), "--code", service.code(), "--pair"});
        ASSERT_TRUE(app->waitForLine("pavix: connected", seconds(30))) << app->output();
        auto output = app->output();
        EXPECT_NE(output.find("pavix: screen recording true accessibility "), std::string::npos)
            << output;
        EXPECT_NE(output.find(" control setting false"), std::string::npos) << output;
        EXPECT_NE(output.find("pavix: sources "), std::string::npos);
        EXPECT_NE(output.find("pavix: connected true"), std::string::npos) << output;
        EXPECT_EQ(output.find(service.code()), std::string::npos) << "the code was logged";

        // The agent's commands are served.
        auto listed = service.agent({"send", "listSources", "--timeout", "20"});
        auto envelope = DevServerProcess::envelope(listed);
        ASSERT_TRUE(envelope.is_object()) << listed;
        ASSERT_TRUE(envelope.contains("value")) << listed;
        EXPECT_TRUE(envelope["value"]["sources"].is_array());
        bool display = false;
        for (const auto& source : envelope["value"]["sources"]) {
            display |= source["kind"] == "display";
        }
        EXPECT_TRUE(display) << listed;
        EXPECT_EQ(envelope["meta"]["recordingMode"], "screencast");

        auto unknown = service.agent({"send", "makeCoffee", "--timeout", "20"});
        EXPECT_NE(unknown.find("local_browser_action_failed"), std::string::npos) << unknown;

        app->signal(SIGTERM);
        EXPECT_EQ(app->wait(seconds(20)), 0) << app->output();
        EXPECT_TRUE(app->waitForLine("disconnect acknowledged by server", seconds(1)))
            << app->output();
    }
    {
        // No code this time: the credential saved in the keyring resumes the pairing.
        auto app = pavix({"--server", service.server(), "--pair"});
        ASSERT_TRUE(app->waitForLine("pavix: connected", seconds(30))) << app->output();
        EXPECT_TRUE(app->waitForLine("pavix: connected true", seconds(1))) << app->output();
        // It came from the Secret Service, not from the file fallback.
        EXPECT_EQ(app->output().find("no Secret Service"), std::string::npos) << app->output();
        auto listed = service.agent({"send", "listSources", "--timeout", "20"});
        EXPECT_NE(listed.find("\"value\""), std::string::npos) << listed;
        app->signal(SIGINT);
        EXPECT_EQ(app->wait(seconds(20)), 0) << app->output();
    }
}

TEST_F(PavixSession, CredentialsAreKeptPerServerAndBadInputIsRefusedClearly) {
    DevServerProcess first;
    DevServerProcess second;
    {
        auto app = pavix({"--server", first.server(), "--code", first.code(), "--pair"});
        ASSERT_TRUE(app->waitForLine("pavix: connected true", seconds(30))) << app->output();
        app->signal(SIGTERM);
        EXPECT_EQ(app->wait(seconds(20)), 0);
    }
    {
        // The other server has no credential of ours, and without a code pairing is refused.
        auto app = pavix({"--server", second.server(), "--pair"});
        EXPECT_EQ(app->wait(seconds(30)), 1) << app->output();
        EXPECT_TRUE(app->waitForLine("pavix: connected false", seconds(1))) << app->output();
        EXPECT_TRUE(app->waitForLine("pairing code is invalid", seconds(1))) << app->output();
    }
    {
        auto app = pavix({"--server", "http://example.com", "--code", "X", "--pair"});
        EXPECT_EQ(app->wait(seconds(30)), 1);
        EXPECT_TRUE(
            app->waitForLine("Use an HTTPS server, or localhost for development.", seconds(1)))
            << app->output();
    }
    {
        auto app = pavix({"--server"});
        EXPECT_EQ(app->wait(seconds(10)), 64);
        EXPECT_TRUE(app->waitForLine("--server needs a value.", seconds(1))) << app->output();
    }
}

}  // namespace
}  // namespace pavix::test
