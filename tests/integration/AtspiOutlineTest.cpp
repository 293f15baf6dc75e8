// The outline of a real application's window read over the accessibility bus: Pavix's own
// window, a Qt application with buttons, text fields, check boxes and a list.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "core/control/OutlineBuilder.h"
#include "linux/AtspiTreeReader.h"
#include "linux/X11ShareableContent.h"
#include "support/ChildProcess.h"
#include "support/DesktopBusMocks.h"
#include "support/DevServerProcess.h"

namespace pavix::test {
namespace {

using std::chrono::seconds;
namespace fs = std::filesystem;

std::optional<ShareableWindow> mainWindowOf(pid_t pid) {
    for (const auto& window : X11ShareableContent().current().windows) {
        if (window.pid == pid && window.title == "Pavix" && window.onScreen &&
            window.height > 200) {
            return window;
        }
    }
    return std::nullopt;
}

class AtspiOutline : public ::testing::Test {
  protected:
    AtspiOutline() : home(DevServerProcess::scratch("atspi-home")) {}
    ~AtspiOutline() override {
        app.signal(SIGTERM);
        app.wait(seconds(20));
        fs::remove_all(home);
    }

    fs::path home;
    ChildProcess app{{PAVIX_BINARY},
                     {{"XDG_CONFIG_HOME", (home / "config").string()},
                      {"XDG_STATE_HOME", (home / "state").string()},
                      {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"}}};
};

TEST_F(AtspiOutline, ReadsAQtWindowsControlsWithFreshReferences) {
    ASSERT_TRUE(eventually(
        [] {
            try {
                gdbusCall(Bus{}, "app.pavix.Pavix", "/app/pavix/Pavix", "app.pavix.Pavix.Activate",
                          {});
                return true;
            } catch (const std::exception&) {
                return false;
            }
        },
        seconds(30)))
        << app.output();
    std::optional<ShareableWindow> window;
    ASSERT_TRUE(
        eventually([&] { return (window = mainWindowOf(app.pid())).has_value(); }, seconds(20)));

    AtspiTreeReader reader;
    ASSERT_TRUE(reader.reachable());
    AtspiTreeReader::Window target{
        app.pid(), {window->x, window->y, window->width, window->height}, window->title};
    std::optional<AccessibleElement> tree;
    ASSERT_TRUE(
        eventually([&] { return (tree = reader.read(target, {})).has_value(); }, seconds(20)));
    auto snapshot = OutlineBuilder::build(*tree, target.frame, {});
    const auto& outline = snapshot.outline;
    const std::string at = " — visible at \\([0-9]+,[0-9]+\\) window points";
    for (const auto& line : {
             "  \\[ref_[0-9]+\\] button \"Settings…\"( focused)?" + at,
             "  \\[ref_[0-9]+\\] row \"Entire display[^\"]*\"( focused)? selected" + at,
             "  \\[ref_[0-9]+\\] textbox \"Server\" value=\"https://agent\\.pavix\\.app\"" + at,
             "  \\[ref_[0-9]+\\] textbox \"One-time code\" value=\"\"" + at,
             "  \\[ref_[0-9]+\\] checkbox \"Approve recording and upload of the selected source\" "
             "unchecked" +
                 at,
             "  \\[ref_[0-9]+\\] button \"Share with agent\" disabled" + at,
         }) {
        EXPECT_THAT(outline, ::testing::ContainsRegex(line)) << outline;
    }
    // Every place is inside the window: the toolkit's screen positions were taken as such.
    std::regex place("visible at \\(([0-9]+),([0-9]+)\\)");
    int places = 0;
    for (std::sregex_iterator it(outline.begin(), outline.end(), place), end; it != end; ++it) {
        ++places;
        EXPECT_LE(std::stoi((*it)[1]), window->width) << it->str();
        EXPECT_LE(std::stoi((*it)[2]), window->height) << it->str();
    }
    EXPECT_EQ(places, static_cast<int>(snapshot.targets.size()));
    EXPECT_EQ(snapshot.targets.begin()->first, "ref_1");

    // A second read numbers its targets from 1 again and finds the same ones.
    auto again = OutlineBuilder::build(*reader.read(target, {}), target.frame, {});
    EXPECT_EQ(again.targets.size(), snapshot.targets.size());
    EXPECT_EQ(again.targets.at("ref_1").label, snapshot.targets.at("ref_1").label);
}

}  // namespace
}  // namespace pavix::test
