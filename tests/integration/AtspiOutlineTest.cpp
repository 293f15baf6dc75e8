// Outlines of real windows over the accessibility bus, and a toolkit's cache answer parsed.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <climits>
#include <fstream>
#include <regex>
#include <thread>

#include "IntegrationSupport.h"
#include "core/control/OutlineBuilder.h"
#include "linux/AtspiCache.h"
#include "linux/AtspiTreeReader.h"
#include "support/DesktopBusMocks.h"

namespace pavix::test {
namespace {

using std::chrono::seconds;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

AtspiTreeReader::Window readable(pid_t pid, const ShareableWindow& window) {
    return {pid, {window.x, window.y, window.width, window.height}, window.title};
}

TEST(AtspiOutline, ReadsAQtWindowsControlsWithFreshReferences) {
    ScratchFolder home("atspi-home");
    auto environment = pavixEnvironment(home.path());
    environment["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"] = "1";
    ChildProcess app({PAVIX_BINARY}, environment);
    ASSERT_TRUE(eventually(
        [] {
            try {
                gdbusCall(Bus{}, "app.pavix.Pavix", "/app/pavix/Pavix", "app.pavix.Pavix.Activate");
                return true;
            } catch (const std::exception&) {
                return false;
            }
        },
        seconds(30)))
        << app.output();
    std::optional<ShareableWindow> window;
    ASSERT_TRUE(
        eventually([&] { return (window = pavixWindow(app.pid())).has_value(); }, seconds(20)));
    AtspiTreeReader reader;
    ASSERT_TRUE(reader.reachable());
    const auto target = readable(app.pid(), *window);
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
        EXPECT_THAT(outline, ContainsRegex(line)) << outline;
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
    app.signal(SIGTERM);
    app.wait(seconds(20));
}

// The GTK fixture, read as the agent would see it.
class GtkOutline : public ::testing::Test {
  protected:
    GtkOutline() { announcedWindow(fixture); }
    std::optional<AtspiTreeReader::Window> window() {
        auto shown = shownWindow(fixture.pid());
        return shown ? std::optional(readable(fixture.pid(), *shown)) : std::nullopt;
    }
    std::optional<OutlineSnapshot> read(AtspiTreeReader& by) {
        auto target = window();
        auto tree = target ? by.read(*target, {}) : std::nullopt;
        return tree ? std::optional(OutlineBuilder::build(*tree, target->frame, {})) : std::nullopt;
    }
    std::optional<OutlineSnapshot> read() { return read(reader); }
    ChildProcess fixture{{PAVIX_GTK_FIXTURE_BINARY}, {{"NO_AT_BRIDGE", "0"}}};
    AtspiTreeReader reader;
};

TEST_F(GtkOutline, EachKindOfControlHasItsLineInTheCachedReadAndTheCallByCallOne) {
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
        EXPECT_THAT(outline, ContainsRegex(line)) << outline;
    }
    EXPECT_EQ(outline.rfind("  [ref_1] menubaritem \"File\"", 0), 0u) << outline;
    // The hidden page is not read; the labels are the page's text.
    EXPECT_EQ(snapshot->text.find("Nothing here yet"), std::string::npos) << snapshot->text;
    EXPECT_NE(snapshot->text.find("Password"), std::string::npos);
    // The cached read (one call for the element list) says what the call-by-call read says.
    AtspiTreeReader callByCall(1000, 4000, false);
    auto cached = read(reader);
    auto single = read(callByCall);
    ASSERT_TRUE(cached && single);
    EXPECT_EQ(cached->outline, single->outline);
    EXPECT_EQ(cached->text, single->text);
    EXPECT_EQ(cached->elements, single->elements);
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

// The agent reads and operates the shared window through the development service and pavix.
TEST_F(GtkOutline, TheAgentReadsTheSharedWindowThroughTheService) {
    DevServerProcess service;
    ScratchFolder home("control-home");
    std::filesystem::create_directories(home / "config/pavix");
    std::ofstream(home / "config/pavix/pavix.conf") << "[General]\nallowControl=true\n";
    ChildProcess pavix({PAVIX_BINARY, "--server", service.server(), "--code", service.code(),
                        "--pair", "--approve"},
                       pavixEnvironment(home.path()));
    ASSERT_TRUE(pavix.waitForLine("pavix: connected true", seconds(30))) << pavix.output();
    ASSERT_FALSE(selectSource(service, "Pavix GTK fixture").empty());
    auto page = ask(service, "readPage");
    ASSERT_TRUE(page["value"].is_string()) << page.dump() << pavix.output();
    const auto outline = page["value"].get<std::string>();
    EXPECT_EQ(outline.rfind("Window \"Pavix GTK fixture\"\n  [ref_1] menubaritem \"File\"", 0), 0u)
        << outline;
    EXPECT_THAT(outline, HasSubstr("] textbox \"Password\" secure — visible at"));
    // Where the user's own name shows (the fixture's foot) goes with the reply.
    const auto* account = ::getpwuid(::getuid());
    const std::string gecos = account && account->pw_gecos ? account->pw_gecos : "";
    if (!gecos.empty() && gecos.front() != ',') {
        ASSERT_EQ(page["meta"]["identitySightings"].size(), 1u) << page.dump();
        const auto rect = page["meta"]["identitySightings"][0]["rects"][0];
        EXPECT_GT(rect[1].get<double>(), 300) << rect;
        EXPECT_LT(rect[1].get<double>(), 480) << rect;
    }
    EXPECT_THAT(ask(service, "pageText")["value"].get<std::string>(),
                HasSubstr("Password\nName\nRow 1\n"));
    // A click's reply carries the pointer trail, in window points while nothing is recorded.
    std::smatch save;
    ASSERT_TRUE(std::regex_search(
        outline, save,
        std::regex(R"(\[(ref_[0-9]+)\] button "Save" — visible at \(([0-9]+),([0-9]+)\))")));
    const double saveX = std::stod(save[2].str()), saveY = std::stod(save[3].str());
    auto clickSave = [&] {
        return ask(service, "pointer",
                   nlohmann::json::array({"left_click", {{"ref", save[1].str()}}}));
    };
    auto click = clickSave();
    EXPECT_EQ(click["value"]["element"], "button \"Save\"") << click.dump();
    ASSERT_FALSE(click["meta"]["pointerTrail"].empty()) << click.dump();
    auto clicked = click["meta"]["pointerTrail"].back();
    EXPECT_EQ(clicked["kind"], "click");
    EXPECT_NEAR(clicked["x"].get<double>(), saveX, 1.0) << clicked;
    EXPECT_NEAR(clicked["y"].get<double>(), saveY, 1.0) << clicked;
    EXPECT_TRUE(fixture.waitForLine("clicked Save", seconds(10))) << fixture.output();
    // While recorded with room for pop-ups, the trail is in points of the recorded picture.
    auto [started, captureId] = startRecording(service);
    ASSERT_TRUE(started.contains("value")) << started.dump() << pavix.output();
    auto shared = window();
    ASSERT_TRUE(shared);
    auto recorded = clickSave()["meta"]["pointerTrail"].back();
    EXPECT_NEAR(recorded["x"].get<double>(), saveX + std::min(200.0, shared->frame.x), 1.0)
        << recorded << " window at " << shared->frame.x << "," << shared->frame.y;
    EXPECT_NEAR(recorded["y"].get<double>(), saveY + std::min(200.0, shared->frame.y), 1.0)
        << recorded << " window at " << shared->frame.x << "," << shared->frame.y;
    ask(service, "stopRecording", nullptr, 60);
    EXPECT_THAT(pavix.output(), ContainsRegex("control pointer \\([0-9]+ bytes of arguments\\) "
                                              "done in [0-9]+ ms, [1-9][0-9]* pointer samples"));
    // The service hears the agent's code; the log says why.
    auto stale = ask(service, "formInput", nlohmann::json::array({"ref_999", "x"}));
    EXPECT_EQ(stale["error"], "local_browser_action_failed") << stale.dump();
    EXPECT_TRUE(
        pavix.waitForLine("pavix command formInput failed: stale element reference", seconds(5)))
        << pavix.output();
    pavix.signal(SIGTERM);
    EXPECT_EQ(pavix.wait(seconds(20)), 0) << pavix.output();
}

using Message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

Message emptyReply(int type) {
    return Message(dbus_message_new(type), &dbus_message_unref);
}

// A method's reply with `body`, put on the wire by GDBus and read back by libdbus.
Message reply(GVariant* body) {
    GDBusMessage* message = g_dbus_message_new();
    g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_serial(message, 2);
    g_dbus_message_set_reply_serial(message, 1);
    g_dbus_message_set_body(message, body);
    gsize size = 0;
    guchar* blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    Message read(dbus_message_demarshal(reinterpret_cast<char*>(blob), int(size), nullptr),
                 &dbus_message_unref);
    g_free(blob);
    g_object_unref(message);
    return read;
}

TEST(AtspiCache, ReadsEachElementsPlaceRoleStatesAndInterfacesAndNoOtherShape) {
    const unsigned showing = 1U << ATSPI_STATE_SHOWING;
    const unsigned high = 1U << (ATSPI_STATE_READ_ONLY - 32);
    // GTK's layout, a((so)(so)(so)iiassusau): each element, its application's root and its parent,
    // its index and child count, interfaces, name, role, description and states. The second has a
    // role from a newer toolkit and one word of states.
    auto message = reply(g_variant_new_parsed(
        "([((':1.7', objectpath '/a/1'), (':1.7', objectpath '/org/a11y/atspi/accessible/root'),"
        "   (':1.7', objectpath '/a/root'), 0, 2,"
        "   ['org.a11y.atspi.Action', 'org.a11y.atspi.Component'], 'Save', %u, '', [%u, %u]),"
        "  ((':1.7', objectpath '/a/2'), (':1.7', objectpath '/org/a11y/atspi/accessible/root'),"
        "   (':1.7', objectpath '/a/1'), -1, -1,"
        "   ['org.a11y.atspi.Text', 'org.a11y.atspi.Value'], '', %u, '', [uint32 0])],)",
        unsigned(ATSPI_ROLE_PUSH_BUTTON), showing, high, unsigned(ATSPI_ROLE_LAST_DEFINED + 5)));
    ASSERT_TRUE(message);
    auto items = AtspiCache::parse(message.get());
    ASSERT_EQ(items.size(), 2u);
    const auto& save = items[0].basics;
    EXPECT_EQ(items[0].path, "/a/1");
    EXPECT_EQ(items[0].parent, "/a/root");
    EXPECT_EQ(std::pair(items[0].index, items[0].childCount), std::pair(0, 2));
    EXPECT_TRUE(items[0].actionInterface);
    EXPECT_FALSE(items[0].textInterface);
    EXPECT_EQ(save.name, "Save");
    EXPECT_EQ(save.role, ATSPI_ROLE_PUSH_BUTTON);
    EXPECT_TRUE(AtspiElementRules::has(save.states, ATSPI_STATE_SHOWING));
    EXPECT_TRUE(AtspiElementRules::has(save.states, ATSPI_STATE_READ_ONLY));
    EXPECT_FALSE(AtspiElementRules::has(save.states, ATSPI_STATE_FOCUSED));
    EXPECT_EQ(std::pair(items[1].index, items[1].childCount), std::pair(-1, -1));
    EXPECT_TRUE(items[1].textInterface && items[1].valueInterface);
    EXPECT_FALSE(items[1].actionInterface);
    EXPECT_EQ(items[1].basics.role, ATSPI_ROLE_UNKNOWN);
    EXPECT_EQ(items[1].basics.states, 0u);
    // Qt's older layout lists each element's children instead of its index and count.
    EXPECT_TRUE(
        AtspiCache::parse(reply(g_variant_new_parsed("(@a((so)(so)(so)a(so)assusau) [],)")).get())
            .empty());
    EXPECT_TRUE(AtspiCache::parse(nullptr).empty());
    EXPECT_TRUE(AtspiCache::parse(emptyReply(DBUS_MESSAGE_TYPE_ERROR).get()).empty());
}

TEST(AtspiElementRules, APlaceIsTakenOnlyWhenTheToolkitGivesARealOne) {
    struct Case {
        int x, y, width, height;
        bool taken;
    } cases[] = {
        {10, 20, 30, 40, true},
        {-500, -20, 30, 40, true},           // on a monitor left of the first
        {INT_MIN, INT_MIN, 180, 21, false},  // GTK's row scrolled out of its view
        {0, INT_MIN + 40, 180, 21, false},
        {INT_MAX, 0, 10, 10, false},
        {10, 20, 0, 40, false},
        {10, 20, 30, -1, false},
    };
    for (const auto& c : cases) {
        auto frame = AtspiElementRules::frameOf(c.x, c.y, c.width, c.height);
        EXPECT_EQ(frame.has_value(), c.taken)
            << c.x << "," << c.y << " " << c.width << "x" << c.height;
        if (frame) {
            EXPECT_EQ(frame->x, c.x);
            EXPECT_EQ(frame->height, c.height);
        }
    }
}

}  // namespace
}  // namespace pavix::test
