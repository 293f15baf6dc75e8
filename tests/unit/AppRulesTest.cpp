// The application's own rules: its command line, how versions compare and the update check.
#include <gtest/gtest.h>

#include "core/app/AppVersion.h"
#include "core/app/CommandLine.h"
#include "core/app/UpdatePolicy.h"
#include "core/session/Studio.h"
#include "support/Failure.h"
#include "support/StudioHarness.h"

namespace pavix {
namespace {

std::string refusal(const std::vector<std::string>& arguments) {
    return test::failureOf<std::invalid_argument>([&] { CommandLine::parse(arguments); });
}

TEST(CommandLineSwitches, ActionsTakeTheirValuesAndOnlyOneRuns) {
    auto retry = CommandLine::parse({"--server", "https://a.example", "--retry", "ID-1"});
    EXPECT_EQ(retry.server, "https://a.example");
    EXPECT_EQ(retry.retry, "ID-1");
    EXPECT_FALSE(retry.record || retry.library || retry.pair);
    EXPECT_EQ(CommandLine::parse({"--delete", "ID-2"}).remove, "ID-2");
    EXPECT_TRUE(CommandLine::parse({"--record"}).record);
    // Approving belongs to the agent's session and combines with pairing.
    auto paired = CommandLine::parse({"--pair", "--approve", "--code", "C"});
    EXPECT_TRUE(paired.pair && paired.approve);

    EXPECT_EQ(refusal({"--record", "--pair"}),
              "Choose one of --pair, --record, --library, --retry, --delete and --support.");
    EXPECT_EQ(refusal({"--library", "--support"}),
              "Choose one of --pair, --record, --library, --retry, --delete and --support.");
    EXPECT_EQ(refusal({"--retry"}), "--retry needs a value.");
    EXPECT_EQ(refusal({"--delete", "--library"}), "--delete needs a value.");
    EXPECT_EQ(refusal({"--recrod"}), "Unknown option --recrod.");

    // A browser passes a setup link as the one argument; only the window takes it.
    const std::string link = "pavix-mac://pair?server=https%3A%2F%2Fa.example&code=AB-12";
    EXPECT_EQ(CommandLine::parse({link}).link, link);
    EXPECT_EQ(refusal({link, link}), "Give one setup link at a time.");
    EXPECT_EQ(refusal({"https://a.example"}), "Not a Pavix setup link: https://a.example.");
    EXPECT_EQ(refusal({"--pair", link}).rfind("A setup link opens in the window", 0), 0u);
}

TEST(AppVersion, OrdersPartByPartWithMissingPartsAsZero) {
    struct Case {
        const char* left;
        const char* right;
        int order;  // -1: left below right, 0: equal, 1: above
    };
    const Case cases[] = {
        {"1.10", "1.9", 1},
        {"1.2", "1.2.0", 0},
        {"1.2", "1.2.1", -1},
        {"1.2.0.0", "1.2", 0},
        {"1..2", "1.2", 0},
        {"1.2beta", "1.2", 0},
        {"1.x", "1.0", 0},
        {"1.2", "1.2.-1", 0},
        {"99999999999999999999", "9223372036854775807", 0},
    };
    for (const auto& c : cases) {
        const AppVersion left(c.left), right(c.right);
        SCOPED_TRACE(std::string(c.left) + " vs " + c.right);
        EXPECT_EQ(left < right, c.order < 0);
        EXPECT_EQ(left > right, c.order > 0);
        EXPECT_EQ(left == right, c.order == 0);
    }
    EXPECT_EQ(AppVersion("1..2.").parts, (std::vector<std::int64_t>{1, 2}));
}

TEST(UpdatePolicy, ReadsTheLatestVersionOnlyFromAWellFormedManifest) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {R"({"latest": {"version": "1.4.2"}})", "1.4.2"},
        {R"({"latest": {"version": "1.2.3.4"}})", "1.2.3.4"},
        {R"({"latest": {"version": "2"}})", std::nullopt},          // one part
        {R"({"latest": {"version": "1.2.3.4.5"}})", std::nullopt},  // five parts
        {R"({"latest": {"version": "1.2-beta"}})", std::nullopt},
        {R"({"latest": {"version": " 1.2"}})", std::nullopt},
        {R"({"latest": {"version": 1.2}})", std::nullopt},  // not a string
        {R"({"latest": "1.2"})", std::nullopt},
        {R"({"version": "1.2"})", std::nullopt},
        {R"(["latest"])", std::nullopt},
        {"not json", std::nullopt},
    };
    for (const auto& [manifest, expected] : cases) {
        EXPECT_EQ(UpdatePolicy::latestVersion(manifest), expected) << manifest;
    }
}

TEST(UpdatePolicy, DecidesInItsOrder) {
    using V = std::optional<std::string>;
    struct Case {
        V latest, minimum;
        bool recording;
        UpdateDecision expected;
    };
    const Case cases[] = {
        {"1.5", "1.4", true, UpdateDecision::deferred()},  // even below the minimum
        {"1.5", "1.4", false, UpdateDecision::required("1.5")},
        {std::nullopt, "1.4", false, UpdateDecision::required("1.4")},
        {"1.5", "1.3", false, UpdateDecision::available("1.5")},
        {"1.3.0", std::nullopt, false, UpdateDecision::none()},  // the same version
        {std::nullopt, std::nullopt, false, UpdateDecision::none()},
    };
    for (const auto& c : cases) {
        auto decided = UpdatePolicy::decision("1.3", c.latest, c.minimum, c.recording);
        EXPECT_EQ(decided, c.expected)
            << c.latest.value_or("-") << " " << c.minimum.value_or("-") << " " << c.recording;
    }
}

TEST(UpdatePolicy, ChecksOnceADayAndNeverWhileRecording) {
    const auto now = UpdatePolicy::Clock::now();
    using std::chrono::seconds;
    EXPECT_TRUE(UpdatePolicy::shouldCheck(std::nullopt, now, false));
    EXPECT_FALSE(UpdatePolicy::shouldCheck(std::nullopt, now, true));
    EXPECT_FALSE(UpdatePolicy::shouldCheck(now - seconds(86'399), now, false));
    EXPECT_TRUE(UpdatePolicy::shouldCheck(now - seconds(86'400), now, false));
    EXPECT_FALSE(UpdatePolicy::shouldCheck(now - seconds(86'400), now, true));
    // A clock set back since the last check waits for the day to pass again.
    EXPECT_FALSE(UpdatePolicy::shouldCheck(now + seconds(60), now, false));
}

// The check against a scripted service on loopback: its manifest on the download path and its
// version answer, each of which may be missing or broken.
TEST(UpdateCheck, DecidesFromTheManifestAndTheServicesVersionAnswer) {
    const std::string manifest = "/downloads/pavix-linux.json";
    const std::string version = "/local-browser/version";
    struct Case {
        const char* name;
        int manifestStatus;
        const char* manifestBody;
        int versionStatus;
        const char* versionBody;
        UpdateDecision expected;
    };
    const Case cases[] = {
        {"the manifest's newer version", 200, R"({"latest":{"version":"1.5.0"}})", 200,
         R"({"minimumAppVersion":"1.0","latestAppVersion":"1.4"})",
         UpdateDecision::available("1.5.0")},
        {"the service's newer version", 200, R"({"latest":{"version":"1.4"}})", 200,
         R"({"minimumAppVersion":"1.0","latestAppVersion":"1.6"})",
         UpdateDecision::available("1.6")},
        {"no manifest", 404, R"({"error":"not_found"})", 200,
         R"({"minimumAppVersion":"1.0","latestAppVersion":"1.3"})",
         UpdateDecision::available("1.3")},
        {"broken replies", 200, "<html>", 500, "{", UpdateDecision::none()},
        {"values of the wrong kind", 200, R"({"latest":{"version":2}})", 200,
         R"({"minimumAppVersion":9,"latestAppVersion":["2.0"]})", UpdateDecision::none()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::StudioHarness h;  // version 1.2.3
        h.server.reply(manifest, c.manifestStatus, c.manifestBody);
        h.server.reply(version, c.versionStatus, c.versionBody);
        h.await(h.studio().checkForUpdate(false));
        EXPECT_EQ(h.studio().state().update, c.expected);
        EXPECT_TRUE(h.defaults.integer("lastUpdateCheck").has_value());
        for (const auto& seen : h.server.requests()) {
            EXPECT_EQ(seen.method, "GET") << seen.path;
            EXPECT_FALSE(seen.hasHeader("Authorization")) << seen.path;
        }
    }
}

TEST(UpdateCheck, RunsOnceADayUnlessForcedAndNeverTellsADevelopmentBuild) {
    test::StudioHarness h;
    h.server.reply("/downloads/pavix-linux.json", 200, R"({"latest":{"version":"1.5"}})");
    h.server.reply("/local-browser/version", 200, R"({"minimumAppVersion":"1.3"})");
    h.await(h.studio().checkForUpdate(false));
    EXPECT_EQ(h.studio().state().update, UpdateDecision::required("1.5"));
    const auto asked = h.server.requests().size();
    h.await(h.studio().checkForUpdate(false));  // the same day
    EXPECT_EQ(h.server.requests().size(), asked);
    h.studio().environment().appVersion = "dev";
    h.await(h.studio().checkForUpdate(true));
    EXPECT_EQ(h.server.requests().size(), asked * 2);
    EXPECT_EQ(h.studio().state().update, UpdateDecision::none());

    EXPECT_EQ(Studio::manifestURL("https://agent.example.com/"),
              "https://agent.example.com/downloads/pavix-linux.json");
    EXPECT_EQ(Studio::manifestURL("ftp://agent.example.com"), std::nullopt);
}

}  // namespace
}  // namespace pavix
