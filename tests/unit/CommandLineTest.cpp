// The executable's switches: values, one action at a time, clear refusals.
#include <gtest/gtest.h>

#include "core/app/CommandLine.h"

namespace pavix {
namespace {

std::string refusal(const std::vector<std::string>& arguments) {
    try {
        CommandLine::parse(arguments);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "";
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

}  // namespace
}  // namespace pavix
