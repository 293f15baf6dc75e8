// The outline of a real application's window read over the accessibility bus: Pavix's own
// window, a Qt application with buttons, text fields, check boxes and a list.
#include <pwd.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

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

// The GTK fixture, read as the agent would see it.
class GtkOutline : public ::testing::Test {
  protected:
    GtkOutline() {
        if (!fixture.waitForLine("window 0x", seconds(20))) {
            throw std::runtime_error("no fixture window: " + fixture.output());
        }
    }
    ~GtkOutline() override {
        fixture.signal(SIGTERM);
        fixture.wait(seconds(10));
    }
    std::optional<AtspiTreeReader::Window> window() {
        for (const auto& window : X11ShareableContent().current().windows) {
            if (window.pid == fixture.pid() && window.onScreen) {
                return AtspiTreeReader::Window{
                    fixture.pid(), {window.x, window.y, window.width, window.height}, window.title};
            }
        }
        return std::nullopt;
    }
    std::optional<OutlineSnapshot> read(AtspiTreeReader& by) {
        if (auto target = window()) {
            if (auto tree = by.read(*target, {})) {
                return OutlineBuilder::build(*tree, target->frame, {});
            }
        }
        return std::nullopt;
    }
    std::optional<OutlineSnapshot> read() { return read(reader); }

    ChildProcess fixture{{PAVIX_GTK_FIXTURE_BINARY}, {{"NO_AT_BRIDGE", "0"}}};
    AtspiTreeReader reader;
};

TEST_F(GtkOutline, EachKindOfControlHasItsLine) {
    std::optional<OutlineSnapshot> snapshot;
    ASSERT_TRUE(eventually([&] { return (snapshot = read()).has_value(); }, seconds(20)));
    const auto& outline = snapshot->outline;
    // Each line as the agent reads it; only the places depend on the fonts.
    auto target = [](const std::string& words, bool shows = true) {
        return "  \\[ref_[0-9]+\\] " + words +
               (shows ? " — visible at \\([0-9]+,[0-9]+\\) window points\n"
                      : " — offscreen-below \\(scroll to reveal\\)\n");
    };
    for (const auto& line : {
             target(R"(menubaritem "File" in "menu bar")"),
             target(R"(menubaritem "Edit" in "menu bar")"),
             target(R"(tab "Form" selected)"),
             target(R"(tab "Other")"),
             target(R"(button "Save")"),
             target(R"(button "Locked" disabled)"),
             target(R"(slider "Volume" value="40")"),
             target(R"(switch "Wi-Fi" unchecked)"),
             target(R"(combobox "Colour" value="Red" options=\["Red","Green","Blue"\])"),
             target(R"(radio "Small" checked)"),
             target(R"(radio "Large" unchecked)"),
             target(R"(checkbox "Remember me" unchecked)"),
             target(R"(textbox "Password" secure)"),
             target(R"(textbox "Name" value="")"),
             target(R"(row "Row 1")"),
             target(R"(row "Row 60")", false),
             std::string(R"(Scroll areas \(layout only; offscreen content is not visual )"
                         R"(proof\): \{"regions":\[\{"kind":"panel","remainingPixels":)"
                         R"(\{"down":[1-9][0-9]+,"left":0,"right":0\}\}\]\})"),
         }) {
        EXPECT_THAT(outline, ::testing::ContainsRegex(line)) << outline;
    }
    EXPECT_EQ(outline.rfind("  [ref_1] menubaritem \"File\"", 0), 0u) << outline;
    // The hidden page is not read; the labels are the page's text.
    EXPECT_EQ(snapshot->text.find("Nothing here yet"), std::string::npos) << snapshot->text;
    EXPECT_NE(snapshot->text.find("Password"), std::string::npos);
}

// GTK lists its elements in a cache, which the reader takes in one call before it asks the rest
// of everything at once: the outline is the same as when each question is asked on its own.
TEST_F(GtkOutline, TheCachedReadSaysWhatTheCallByCallReadSays) {
    ASSERT_TRUE(eventually([&] { return read().has_value(); }, seconds(20)));
    AtspiTreeReader callByCall(1000, 4000, false);
    auto cached = read(reader);
    auto single = read(callByCall);
    ASSERT_TRUE(cached && single);
    EXPECT_EQ(cached->outline, single->outline);
    EXPECT_EQ(cached->text, single->text);
    EXPECT_EQ(cached->elements, single->elements);
    // The same elements stand behind the same references.
    ASSERT_EQ(cached->targets.size(), single->targets.size());
    for (const auto& [ref, target] : cached->targets) {
        EXPECT_EQ(target.handle, single->targets.at(ref).handle) << ref;
    }
    EXPECT_GT(cached->targets.size(), 20u);
}

// An application that stops answering halfway costs the read its budget, not a call's time-out
// for each of its elements; once it answers again the read is whole. Asked call by call, the
// application stops while the read walks its tree (a whole read takes about 100 ms here),
// after the frame was found: there is no event to wait for inside the walk. From its cache,
// the read is over too soon for that: the application stops as the read begins.
TEST_F(GtkOutline, AnApplicationThatStopsAnsweringCostsABoundedRead) {
    ASSERT_TRUE(eventually([&] { return read().has_value(); }, seconds(20)));
    auto target = window();
    ASSERT_TRUE(target);
    for (bool cache : {false, true}) {
        SCOPED_TRACE(cache ? "cached" : "call by call");
        AtspiTreeReader bounded(1000, 1500, cache);
        const auto started = std::chrono::steady_clock::now();
        std::thread stop([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(cache ? 0 : 30));
            fixture.signal(SIGSTOP);
        });
        auto tree = bounded.read(*target, {});
        const auto waited = std::chrono::steady_clock::now() - started;
        stop.join();
        fixture.signal(SIGCONT);
        // Unbounded, each of the window's elements would wait for its own time-out: minutes.
        EXPECT_LT(waited, seconds(15));
        if (tree) {
            EXPECT_TRUE(tree->partial);
            EXPECT_THAT(OutlineBuilder::build(*tree, target->frame, {}).outline,
                        ::testing::StartsWith("(Part of the window was read: the application "
                                              "stopped answering.)\n"));
        }
        std::optional<AccessibleElement> whole;
        ASSERT_TRUE(eventually([&] { return (whole = bounded.read(*target, {})).has_value(); },
                               seconds(20)));
        EXPECT_FALSE(whole->partial);
    }
}

// The agent reads the shared window through the development service: Pavix, paired from the
// command line with control allowed, answers readPage and pageText for the fixture's window.
TEST_F(GtkOutline, TheAgentReadsTheSharedWindowThroughTheService) {
    DevServerProcess service;
    fs::path home = DevServerProcess::scratch("control-home");
    fs::create_directories(home / "config" / "pavix");
    std::ofstream(home / "config" / "pavix" / "pavix.conf") << "[General]\nallowControl=true\n";
    ChildProcess pavix({PAVIX_BINARY, "--server", service.server(), "--code", service.code(),
                        "--pair", "--approve"},
                       {{"XDG_CONFIG_HOME", (home / "config").string()},
                        {"XDG_STATE_HOME", (home / "state").string()},
                        {"PAVIX_CONTROL_LOG", "1"}});
    ASSERT_TRUE(pavix.waitForLine("pavix: connected true", seconds(30))) << pavix.output();
    auto listed =
        DevServerProcess::envelope(service.agent({"send", "listSources", "--timeout", "20"}));
    std::string id;
    for (const auto& source : listed["value"]["sources"]) {
        if (source["title"].get<std::string>().find("Pavix GTK fixture") != std::string::npos) {
            id = source["id"];
        }
    }
    ASSERT_FALSE(id.empty()) << listed.dump();
    service.agent({"send", "selectSource", nlohmann::json::array({{{"sourceId", id}}}).dump()});

    auto page = DevServerProcess::envelope(service.agent({"send", "readPage", "--timeout", "20"}));
    ASSERT_TRUE(page["value"].is_string()) << page.dump() << pavix.output();
    const auto outline = page["value"].get<std::string>();
    EXPECT_EQ(outline.rfind("Window \"Pavix GTK fixture\"\n  [ref_1] menubaritem \"File\"", 0), 0u)
        << outline;
    EXPECT_THAT(outline, ::testing::HasSubstr("] textbox \"Password\" secure — visible at"));
    // The fixture shows who is signed in; where the user's own name shows goes with the reply.
    const auto* account = ::getpwuid(::getuid());
    const std::string gecos = account && account->pw_gecos ? account->pw_gecos : "";
    if (!gecos.empty() && gecos.front() != ',') {
        ASSERT_EQ(page["meta"]["identitySightings"].size(), 1u) << page.dump();
        const auto rect = page["meta"]["identitySightings"][0]["rects"][0];
        EXPECT_GT(rect[1].get<double>(), 300) << rect;  // at the foot of the window
        EXPECT_LT(rect[1].get<double>(), 480) << rect;
    }
    auto text = DevServerProcess::envelope(service.agent({"send", "pageText", "--timeout", "20"}));
    EXPECT_THAT(text["value"].get<std::string>(), ::testing::HasSubstr("Password\nName\nRow 1\n"));

    // The agent clicks by reference; the reply carries the pointer's trail for the video, in
    // points of the window while nothing is recorded.
    std::smatch save;
    ASSERT_TRUE(std::regex_search(
        outline, save,
        std::regex(R"(\[(ref_[0-9]+)\] button "Save" — visible at \(([0-9]+),([0-9]+)\))")));
    const double saveX = std::stod(save[2].str()), saveY = std::stod(save[3].str());
    auto clickSave = [&] {
        return DevServerProcess::envelope(
            service.agent({"send", "pointer",
                           nlohmann::json::array({"left_click", {{"ref", save[1].str()}}}).dump(),
                           "--timeout", "20"}));
    };
    auto click = clickSave();
    EXPECT_EQ(click["value"]["element"], "button \"Save\"") << click.dump();
    ASSERT_FALSE(click["meta"]["pointerTrail"].empty()) << click.dump();
    auto clicked = click["meta"]["pointerTrail"].back();
    EXPECT_EQ(clicked["kind"], "click");
    EXPECT_NEAR(clicked["x"].get<double>(), saveX, 1.0) << clicked;
    EXPECT_NEAR(clicked["y"].get<double>(), saveY, 1.0) << clicked;
    EXPECT_TRUE(fixture.waitForLine("clicked Save", seconds(10))) << fixture.output();

    // While the window is recorded with room for its pop-ups around it, the trail is in points
    // of that recorded picture: the window sits up to 200 points in from its top-left corner.
    auto captureId = service.agent({"capture-id"});
    captureId.erase(captureId.find_last_not_of("\n ") + 1);
    auto started = DevServerProcess::envelope(service.agent(
        {"send", "startRecording", nlohmann::json::array({{{"captureId", captureId}}}).dump(),
         "--timeout", "30"}));
    ASSERT_TRUE(started.contains("value")) << started.dump() << pavix.output();
    auto shared = window();
    ASSERT_TRUE(shared);
    auto recorded = clickSave()["meta"]["pointerTrail"].back();
    EXPECT_NEAR(recorded["x"].get<double>(), saveX + std::min(200.0, shared->frame.x), 1.0)
        << recorded << " window at " << shared->frame.x << "," << shared->frame.y;
    EXPECT_NEAR(recorded["y"].get<double>(), saveY + std::min(200.0, shared->frame.y), 1.0)
        << recorded << " window at " << shared->frame.x << "," << shared->frame.y;
    service.agent({"send", "stopRecording", "--timeout", "60"});
    EXPECT_THAT(pavix.output(), ::testing::ContainsRegex("control pointer \\([0-9]+ bytes of "
                                                         "arguments\\) done in [0-9]+ ms, "
                                                         "[1-9][0-9]* pointer samples"));
    auto stale = DevServerProcess::envelope(service.agent(
        {"send", "formInput", nlohmann::json::array({"ref_999", "x"}).dump(), "--timeout", "20"}));
    // The service hears the agent's code; the log says why.
    EXPECT_EQ(stale["error"], "local_browser_action_failed") << stale.dump();
    EXPECT_TRUE(
        pavix.waitForLine("pavix command formInput failed: stale element reference", seconds(5)))
        << pavix.output();

    pavix.signal(SIGTERM);
    EXPECT_EQ(pavix.wait(seconds(20)), 0) << pavix.output();
    fs::remove_all(home);
}

}  // namespace
}  // namespace pavix::test
