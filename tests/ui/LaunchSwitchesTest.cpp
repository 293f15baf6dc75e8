// The one-shot switches of the pavix executable: what each prints or writes, and its exit
// status, with a display and without one.
#include <gtest/gtest.h>

#include <QImage>
#include <filesystem>
#include <regex>

#include "support/ChildProcess.h"
#include "support/LibraryRecords.h"

namespace pavix::test {
namespace {

using std::chrono::seconds;

struct Run {
    int status;
    std::string output;
};

Run pavix(std::vector<std::string> arguments, std::map<std::string, std::string> env = {}) {
    arguments.insert(arguments.begin(), PAVIX_BINARY);
    ChildProcess app(arguments, env);
    auto status = app.wait(seconds(30));
    return {status.value_or(-1), app.output()};
}

// A display that does not exist: nothing can be recorded there.
const std::map<std::string, std::string> kNoDisplay = {{"DISPLAY", ":4242"}};

TEST(LaunchSwitches, CheckPermissionAndListSourcesReportWhatTheDisplayAllows) {
    const std::filesystem::path listing = "/tmp/pavix-list-sources.txt";
    struct Case {
        std::map<std::string, std::string> env;
        int status;
        std::string permission;  // pattern of --check-permission's line
        std::string sources;     // pattern of the listing file
        std::string logged;      // what --list-sources logs
    } cases[] = {
        {{},
         0,
         "screen-recording-granted=true bundle=/.+/pavix\n",
         "[0-9]+ [1-9][0-9]*",
         "Pavix list-sources ok: [0-9]+ windows, [1-9][0-9]* displays"},
        {kNoDisplay, 2, "screen-recording-granted=false bundle=/.+/pavix\n",
         "error CaptureError -3802 .+", "Pavix list-sources failed: .+"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        auto check = pavix({"--check-permission"}, c.env);
        EXPECT_EQ(check.status, c.status);
        EXPECT_TRUE(std::regex_match(check.output, std::regex(c.permission))) << check.output;

        std::filesystem::remove(listing);
        auto list = pavix({"--list-sources"}, c.env);
        EXPECT_EQ(list.status, 0);  // a failure is reported in the file and the log only
        EXPECT_TRUE(std::regex_search(list.output, std::regex(c.logged))) << list.output;
        EXPECT_TRUE(std::regex_match(readBytes(listing), std::regex(c.sources)))
            << readBytes(listing);
    }
}

TEST(LaunchSwitches, SnapshotRendersTheBarToAPngOrSaysWhyNot) {
    const std::string path = "/tmp/pavix-snapshot-test.png";
    std::filesystem::remove(path);
    for (const auto& env : {std::map<std::string, std::string>{}, kNoDisplay}) {
        auto run = pavix({"--snapshot", path}, env);
        ASSERT_EQ(run.status, 0) << run.output;
        QImage bar(QString::fromStdString(path));
        ASSERT_FALSE(bar.isNull());
        EXPECT_GT(bar.width(), 5 * bar.height()) << "a bar, wide and low";
        std::filesystem::remove(path);
    }
    auto refused = pavix({"--snapshot", "/nonexistent/folder/bar.png"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("pavix: could not write the snapshot to /nonexistent"),
              std::string::npos)
        << refused.output;
}

}  // namespace
}  // namespace pavix::test
