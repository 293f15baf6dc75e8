// The agent operating a real GTK application over the accessibility bus and XTest: every kind
// of control changes as asked and the application says so, typing and keys reach the focused
// field, a point under another window gets no event, and the user's pointer comes back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "core/control/DesktopControl.h"
#include "core/session/PavixError.h"
#include "linux/AtspiActions.h"
#include "linux/AtspiTreeReader.h"
#include "linux/X11DesktopInput.h"
#include "linux/X11ShareableContent.h"
#include "support/ChildProcess.h"
#include "support/X11TestWindow.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;

class GtkControl : public ::testing::Test {
  protected:
    GtkControl() {
        if (!fixture.waitForLine("window 0x", seconds(20))) {
            throw std::runtime_error("no fixture window: " + fixture.output());
        }
        auto line = *fixture.waitForLine("window 0x", seconds(1));
        windowID = std::stoul(line.substr(line.find("0x")), nullptr, 16);
        // The window is there once the accessibility bus shows its controls.
        EXPECT_TRUE(eventually(
            [&] {
                try {
                    control.emplace(ControlParts{reader, actions, input, content}, windowID,
                                    OutlineOptions{}, pacing());
                    return read().find("button \"Save\"") != std::string::npos;
                } catch (const PavixError&) {
                    return false;
                }
            },
            seconds(20)));
    }
    ~GtkControl() override {
        control.reset();
        fixture.signal(SIGTERM);
        fixture.wait(seconds(10));
    }

    // No pauses between characters, but the window manager's and the toolkit's time to move
    // the focus.
    static InputPacing pacing() {
        auto pacing = InputPacing::none();
        pacing.activatePoll = std::chrono::milliseconds(50);
        pacing.settle = std::chrono::milliseconds(150);
        return pacing;
    }

    std::string read() { return control->handle("readPage", json::array()).get<std::string>(); }
    // The reference of the line that names `words` in a fresh read.
    std::string ref(const std::string& words) {
        const auto outline = read();
        auto at = outline.find("] " + words);
        if (at == std::string::npos) {
            throw std::runtime_error("no " + words + " in\n" + outline);
        }
        auto open = outline.rfind('[', at);
        return outline.substr(open + 1, at - open - 1);
    }
    // The reply, or the sentence of the refusal.
    std::string run(const std::string& method, json args) {
        try {
            return control->handle(method, args).dump();
        } catch (const PavixError& e) {
            return e.what();
        }
    }
    bool says(const std::string& line) { return fixture.waitForLine(line, seconds(5)).has_value(); }

    ChildProcess fixture{{PAVIX_GTK_FIXTURE_BINARY}, {{"NO_AT_BRIDGE", "0"}}};
    std::uint32_t windowID = 0;
    AtspiTreeReader reader;
    AtspiActions actions;
    X11DesktopInput input;
    X11ShareableContent content;
    std::optional<DesktopControl> control;
};

TEST_F(GtkControl, EachKindOfControlChangesAsAskedAndPasswordsAreLeftAlone) {
    EXPECT_THAT(run("pointer", json::array({"left_click", {{"ref", ref("button \"Save\"")}}})),
                ::testing::HasSubstr("button \\\"Save\\\""));
    EXPECT_TRUE(says("clicked Save")) << fixture.output();

    run("formInput", json::array({ref("checkbox \"Remember me\""), "yes"}));
    EXPECT_TRUE(says("toggled Remember me on")) << fixture.output();
    run("formInput", json::array({ref("switch \"Wi-Fi\""), true}));
    EXPECT_TRUE(says("toggled Wi-Fi on")) << fixture.output();
    run("formInput", json::array({ref("radio \"Large\""), "checked"}));
    EXPECT_TRUE(says("toggled Large on")) << fixture.output();
    EXPECT_EQ(run("formInput", json::array({ref("combobox \"Colour\""), "Blue"})),
              R"({"element":"combobox \"Colour\"","value":"Blue"})");
    EXPECT_TRUE(says("chose Colour=Blue")) << fixture.output();
    EXPECT_EQ(run("formInput", json::array({ref("combobox \"Colour\""), "Mauve"})),
              "local_method_forbidden: not found: option \"Mauve\" of combobox \"Colour\"");
    run("formInput", json::array({ref("textbox \"Name\""), "Ada"}));
    EXPECT_TRUE(says("changed Name=Ada")) << fixture.output();

    // The outline reads the new state back.
    const auto outline = read();
    for (const char* line :
         {"checkbox \"Remember me\" checked", "switch \"Wi-Fi\" checked", "radio \"Large\" checked",
          "combobox \"Colour\" value=\"Blue\"", "textbox \"Name\" value=\"Ada\""}) {
        EXPECT_THAT(outline, ::testing::HasSubstr(line)) << outline;
    }

    // The password field is never filled nor typed into.
    const auto password = ref("textbox \"Password\"");
    EXPECT_EQ(run("formInput", json::array({password, "hunter2"})), "local_sign_in_required");
    run("pointer", json::array({"left_click", {{"ref", password}}}));
    // The application tells the bus about its new focus a moment later.
    ASSERT_TRUE(eventually([&] {
        auto focused = actions.focused(fixture.pid());
        return focused && focused->secure;
    }));
    EXPECT_EQ(run("typeText", json::array({"hunter2"})), "local_sign_in_required");
    EXPECT_EQ(run("pressKey", json::array({"h"})), "local_sign_in_required");
    EXPECT_THAT(fixture.output(), ::testing::Not(::testing::HasSubstr("Password changed")));
}

TEST_F(GtkControl, TypingAndKeysReachTheFocusedField) {
    EXPECT_EQ(run("typeText", json::array({"x"})), "No text field is focused");
    run("pointer", json::array({"left_click", {{"ref", ref("textbox \"Name\"")}}}));
    ASSERT_TRUE(eventually([&] {
        auto focused = actions.focused(fixture.pid());
        return focused && focused->editable;
    }));
    // Another application has the front: typing brings the fixture forward, and the end of
    // the recording gives the front back.
    X11TestDisplay display;
    X11TestWindow other(display, otherApplication(700, 500, 200, 100, 0x3366cc));
    other.map();
    ASSERT_TRUE(eventually([&] {
        input.activate(other.id());
        return input.activeWindow() == other.id();
    }));
    // Characters the keymap has, shifted ones, and one it lacks.
    EXPECT_EQ(run("typeText", json::array({"Ada L. é€"})), R"({"typed":9})");
    EXPECT_TRUE(says("changed Name=Ada L. é€")) << fixture.output();
    EXPECT_EQ(input.activeWindow(), windowID);
    control->endRecording();
    EXPECT_TRUE(eventually([&] { return input.activeWindow() == other.id(); }));
    run("pointer", json::array({"left_click", {{"ref", ref("textbox \"Name\"")}}}));
    run("pressKey", json::array({"ctrl+a BackSpace"}));
    EXPECT_TRUE(eventually([&] {
        auto lines = fixture.lines();
        return std::find(lines.begin(), lines.end(), "changed Name=") != lines.end();
    })) << fixture.output();
    EXPECT_TRUE(says("key BackSpace")) << fixture.output();
}

TEST_F(GtkControl, APointUnderAnotherWindowGetsNoEventAndThePointerComesBack) {
    const auto outline = read();
    std::smatch where;
    ASSERT_TRUE(std::regex_search(
        outline, where, std::regex(R"(button "Save" — visible at \(([0-9]+),([0-9]+)\))")));
    const int x = std::stoi(where[1]), y = std::stoi(where[2]);
    auto window = X11ShareableContent().current().windows;
    auto shared =
        std::find_if(window.begin(), window.end(), [&](const auto& w) { return w.id == windowID; });
    ASSERT_NE(shared, window.end());

    // A window of another process over the button: the click is refused and nothing lands.
    X11TestDisplay display;
    X11TestWindowOptions cover;
    cover.x = int(shared->x) + x - 30, cover.y = int(shared->y) + y - 20;
    cover.width = 60, cover.height = 40;
    cover.overrideRedirect = true;
    cover.title = "cover";
    {
        X11TestWindow over(display, cover);
        over.map();
        const auto before = input.pointer();
        EXPECT_EQ(run("pointer", json::array({"left_click", {{"x", x}, {"y", y}}})),
                  "Nothing to click at that point");
        EXPECT_EQ(input.pointer(), before);
    }
    XSync(display.get(), False);
    // Uncovered, the same point is the button's: a synthetic click, and the pointer goes back.
    input.moveTo({5, 5});
    EXPECT_EQ(run("pointer", json::array({"left_click", {{"x", x}, {"y", y}}})),
              R"({"action":"left_click","at":[)" + std::to_string(x) + ".0," + std::to_string(y) +
                  ".0]}");
    EXPECT_TRUE(says("clicked Save")) << fixture.output();
    EXPECT_EQ(input.pointer(), (ScreenPoint{5, 5}));
    EXPECT_EQ(fixture.output().find("clicked Save"), fixture.output().rfind("clicked Save"));

    // The wheel over the list brings its lower rows into view.
    const auto list = ref("row \"Row 2\"");
    EXPECT_EQ(run("scrollBy", json::array({"down", 10, list})),
              R"({"amount":10,"direction":"down"})");
    EXPECT_TRUE(eventually(
        [&] { return read().find("row \"Row 1\" — offscreen-above") != std::string::npos; }));
    EXPECT_EQ(input.pointer(), (ScreenPoint{5, 5}));
}

// A menu the agent opens from the menu bar is read with the window, and its items are operated
// like any other target.
TEST_F(GtkControl, AnOpenedMenuIsReadAndItsItemsOperated) {
    EXPECT_EQ(read().find("menuitem \"Open\""), std::string::npos);
    run("pointer", json::array({"left_click", ref("menubaritem \"File\"")}));
    std::string open;
    ASSERT_TRUE(eventually([&] {
        open = read();
        return open.find("] menuitem \"Open\"") != std::string::npos;
    })) << open;
    EXPECT_THAT(open, ::testing::HasSubstr("menuitem \"Open\" in \"open menu\" — visible at"));
    EXPECT_EQ(run("pointer", json::array({"left_click", ref("menuitem \"Open\"")})),
              R"({"action":"left_click","element":"menuitem \"Open\""})");
    EXPECT_TRUE(says("menu Open")) << fixture.output();
}

// Qt opens a menu bar's menus as pop-up windows of their own: the menu the agent opens is read
// with the window all the same, and its items are operated.
TEST(QtControl, AMenuOpenedFromTheMenuBarIsReadAndItsItemsOperated) {
    ChildProcess app({PAVIX_QT_MENU_FIXTURE_BINARY}, {});
    auto line = app.waitForLine("window 0x", seconds(20));
    ASSERT_TRUE(line) << app.output();
    const std::uint32_t windowID = std::stoul(line->substr(line->find("0x")), nullptr, 16);
    AtspiTreeReader reader;
    AtspiActions actions;
    X11DesktopInput input;
    X11ShareableContent content;
    std::optional<DesktopControl> control;
    auto read = [&] { return control->handle("readPage", json::array()).get<std::string>(); };
    auto refOf = [](const std::string& outline, const std::string& words) {
        std::smatch found;
        return std::regex_search(outline, found, std::regex("\\[(ref_[0-9]+)\\] " + words))
                   ? found[1].str()
                   : std::string();
    };
    std::string outline;
    ASSERT_TRUE(eventually([&] {
        try {
            control.emplace(ControlParts{reader, actions, input, content}, windowID);
            outline = read();
            return !refOf(outline, "menubaritem \"File\"").empty();
        } catch (const PavixError&) {
            return false;
        }
    })) << outline;
    EXPECT_EQ(outline.find("menuitem \"Open\""), std::string::npos) << outline;
    control->handle("pointer", json::array({"left_click", refOf(outline, "menubaritem \"File\"")}));
    ASSERT_TRUE(eventually([&] {
        outline = read();
        return !refOf(outline, "menuitem \"Open\" in \"open menu\" — visible").empty();
    })) << outline;
    control->handle("pointer", json::array({"left_click", refOf(outline, "menuitem \"Open\"")}));
    EXPECT_TRUE(app.waitForLine("menu Open", seconds(5))) << app.output();
    app.signal(SIGTERM);
    app.wait(seconds(10));
}

// A window whose class names a terminal is never operated, however accessible it is.
TEST(GtkControlRefusal, ATerminalsWindowIsNeverOperated) {
    ChildProcess terminal({PAVIX_GTK_FIXTURE_BINARY, "--class=XTerm", "--name=xterm", "xterm"},
                          {{"NO_AT_BRIDGE", "0"}});
    auto line = terminal.waitForLine("window 0x", seconds(20));
    ASSERT_TRUE(line) << terminal.output();
    const std::uint32_t windowID = std::stoul(line->substr(line->find("0x")), nullptr, 16);
    AtspiTreeReader reader;
    AtspiActions actions;
    X11DesktopInput input;
    X11ShareableContent content;
    ASSERT_TRUE(eventually([&] {
        for (const auto& window : content.current().windows) {
            if (window.id == windowID && window.onScreen) {
                return true;
            }
        }
        return false;
    }));
    try {
        DesktopControl control(ControlParts{reader, actions, input, content}, windowID);
        ADD_FAILURE() << "a terminal's window was opened for control";
    } catch (const PavixError& e) {
        EXPECT_STREQ(e.what(), "local_method_forbidden: Pavix does not operate this app");
    }
    terminal.signal(SIGTERM);
    terminal.wait(seconds(10));
}

}  // namespace
}  // namespace pavix::test
