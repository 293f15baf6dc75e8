// The agent operating real GTK, Qt and canvas applications over the accessibility bus and XTest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <sstream>

#include "IntegrationSupport.h"
#include "core/capture/CaptureStill.h"
#include "core/control/DesktopControl.h"
#include "core/session/PavixError.h"
#include "linux/AtspiActions.h"
#include "linux/AtspiTreeReader.h"
#include "linux/TesseractRecognizer.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11DesktopInput.h"
#include "support/X11TestWindow.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

// A fixture program's window, opened for control as the agent's session opens it.
class AppControl : public ::testing::Test {
  protected:
    // Opens the window once its outline shows `ready`; `visual` adds its picture and Tesseract.
    void open(std::vector<std::string> program, const std::string& ready, bool visual = false) {
        fixture.emplace(program, std::map<std::string, std::string>{{"NO_AT_BRIDGE", "0"}});
        windowID = announcedWindow(*fixture);
        ControlParts parts{reader, actions, input, content};
        auto pacing = InputPacing::none();
        if (visual) {
            parts.picture = [](std::uint32_t id, int width, int height) {
                X11CaptureStream stream;
                CaptureFilter filter;
                filter.windowID = id;
                return CaptureStill::firstFrame(stream, filter, width, height, seconds(5));
            };
            parts.recognizer = &recognizer;
        } else {
            // The window manager's and the toolkit's time to move the focus.
            pacing.activatePoll = std::chrono::milliseconds(50);
            pacing.settle = std::chrono::milliseconds(150);
        }
        ASSERT_TRUE(eventually(
            [&] {
                try {
                    control.emplace(parts, windowID, OutlineOptions{}, pacing);
                    outline = read(visual);
                    return outline.find(ready) != std::string::npos;
                } catch (const PavixError&) {
                    return false;
                }
            },
            seconds(30)))
            << outline;
    }
    std::string read(bool visual = false) {
        auto args = visual ? json::array({{{"visual", true}}}) : json::array();
        return control->handle("readPage", args).get<std::string>();
    }
    // The reference of the line that names `words` in a fresh read; empty when none does.
    std::string ref(const std::string& words) {
        const auto fresh = read();
        auto at = fresh.find("] " + words);
        auto open = at == std::string::npos ? at : fresh.rfind('[', at);
        return open == std::string::npos ? "" : fresh.substr(open + 1, at - open - 1);
    }
    // The reply, or the sentence of the refusal.
    std::string run(const std::string& method, json args) {
        try {
            return control->handle(method, args).dump();
        } catch (const PavixError& e) {
            return e.what();
        }
    }
    std::string click(const std::string& words) {
        return run("pointer", json::array({"left_click", ref(words)}));
    }
    bool says(const std::string& line) {
        return fixture->waitForLine(line, seconds(5)).has_value();
    }
    bool focused(bool secure) {
        return eventually([&] {
            auto now = actions.focused(fixture->pid());
            return now && (secure ? now->secure : now->editable);
        });
    }
    std::optional<ChildProcess> fixture;
    std::uint32_t windowID = 0;
    AtspiTreeReader reader;
    AtspiActions actions;
    X11DesktopInput input;
    X11ShareableContent content;
    TesseractRecognizer recognizer;
    std::optional<DesktopControl> control;
    std::string outline;
};

class GtkControl : public AppControl {
  protected:
    void SetUp() override { open({PAVIX_GTK_FIXTURE_BINARY}, "button \"Save\""); }
};

TEST_F(GtkControl, EachKindOfControlChangesAsAskedAndPasswordsAreLeftAlone) {
    EXPECT_THAT(click("button \"Save\""), HasSubstr("button \\\"Save\\\""));
    EXPECT_TRUE(says("clicked Save")) << fixture->output();
    struct Case {
        std::string control;
        json value;
        std::string said;
    };
    for (const auto& c : std::vector<Case>{
             {"checkbox \"Remember me\"", "yes", "toggled Remember me on"},
             {"switch \"Wi-Fi\"", true, "toggled Wi-Fi on"},
             {"radio \"Large\"", "checked", "toggled Large on"},
             {"combobox \"Colour\"", "Blue", "chose Colour=Blue"},
             {"textbox \"Name\"", "Ada", "changed Name=Ada"},
         }) {
        auto reply = run("formInput", json::array({ref(c.control), c.value}));
        if (c.value == "Blue") {
            EXPECT_EQ(reply, R"({"element":"combobox \"Colour\"","value":"Blue"})");
        }
        EXPECT_TRUE(says(c.said)) << fixture->output();
    }
    EXPECT_EQ(run("formInput", json::array({ref("combobox \"Colour\""), "Mauve"})),
              "local_method_forbidden: not found: option \"Mauve\" of combobox \"Colour\"");
    // The outline reads the new state back.
    const auto changed = read();
    for (const char* line :
         {"checkbox \"Remember me\" checked", "switch \"Wi-Fi\" checked", "radio \"Large\" checked",
          "combobox \"Colour\" value=\"Blue\"", "textbox \"Name\" value=\"Ada\""}) {
        EXPECT_THAT(changed, HasSubstr(line)) << changed;
    }
    // The password field is never filled nor typed into.
    const auto password = ref("textbox \"Password\"");
    EXPECT_EQ(run("formInput", json::array({password, "hunter2"})), "local_sign_in_required");
    run("pointer", json::array({"left_click", {{"ref", password}}}));
    ASSERT_TRUE(focused(true));  // the application tells the bus a moment later
    EXPECT_EQ(run("typeText", json::array({"hunter2"})), "local_sign_in_required");
    EXPECT_EQ(run("pressKey", json::array({"h"})), "local_sign_in_required");
    EXPECT_THAT(fixture->output(), ::testing::Not(HasSubstr("Password changed")));
}

TEST_F(GtkControl, TypingAndKeysReachTheFocusedField) {
    EXPECT_EQ(run("typeText", json::array({"x"})), "No text field is focused");
    click("textbox \"Name\"");
    ASSERT_TRUE(focused(false));
    // Typing brings the fixture to the front; the end of the recording gives the front back.
    X11TestDisplay display;
    X11TestWindow other(display, otherApplication(700, 500, 200, 100, 0x3366cc));
    ASSERT_TRUE(eventually([&] {
        input.activate(other.id());
        return input.activeWindow() == other.id();
    }));
    // Characters the keymap has, shifted ones, and one it lacks.
    EXPECT_EQ(run("typeText", json::array({"Ada L. é€"})), R"({"typed":9})");
    EXPECT_TRUE(says("changed Name=Ada L. é€")) << fixture->output();
    EXPECT_EQ(input.activeWindow(), windowID);
    control->endRecording();
    EXPECT_TRUE(eventually([&] { return input.activeWindow() == other.id(); }));
    click("textbox \"Name\"");
    run("pressKey", json::array({"ctrl+a BackSpace"}));
    EXPECT_TRUE(eventually([&] {
        auto lines = fixture->lines();
        return std::find(lines.begin(), lines.end(), "changed Name=") != lines.end();
    })) << fixture->output();
    EXPECT_TRUE(says("key BackSpace")) << fixture->output();
}

TEST_F(GtkControl, APointUnderAnotherWindowGetsNoEventAndThePointerComesBack) {
    std::smatch where;
    ASSERT_TRUE(std::regex_search(
        outline, where, std::regex(R"(button "Save" — visible at \(([0-9]+),([0-9]+)\))")));
    const int x = std::stoi(where[1]), y = std::stoi(where[2]);
    auto shared = shownWindow(fixture->pid());
    ASSERT_TRUE(shared);
    // A window of another process over the button: the click is refused and nothing lands.
    X11TestDisplay display;
    X11TestWindowOptions cover{.title = "cover",
                               .x = int(shared->x) + x - 30,
                               .y = int(shared->y) + y - 20,
                               .width = 60,
                               .height = 40};
    cover.overrideRedirect = true;
    {
        X11TestWindow over(display, cover);
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
    EXPECT_TRUE(says("clicked Save")) << fixture->output();
    EXPECT_EQ(input.pointer(), (ScreenPoint{5, 5}));
    EXPECT_EQ(fixture->output().find("clicked Save"), fixture->output().rfind("clicked Save"));
    // The wheel over the list brings its lower rows into view.
    EXPECT_EQ(run("scrollBy", json::array({"down", 10, ref("row \"Row 2\"")})),
              R"({"amount":10,"direction":"down"})");
    EXPECT_TRUE(eventually(
        [&] { return read().find("row \"Row 1\" — offscreen-above") != std::string::npos; }));
    EXPECT_EQ(input.pointer(), (ScreenPoint{5, 5}));
}

// A menu opened from the menu bar is read with the window and its items operated.
TEST_F(AppControl, AMenuOpenedFromTheMenuBarIsReadAndItsItemsOperated) {
    for (const char* program : {PAVIX_GTK_FIXTURE_BINARY, PAVIX_QT_MENU_FIXTURE_BINARY}) {
        SCOPED_TRACE(program);
        ASSERT_NO_FATAL_FAILURE(open({program}, "] menubaritem \"File\""));
        EXPECT_EQ(outline.find("menuitem \"Open\""), std::string::npos) << outline;
        click("menubaritem \"File\"");
        ASSERT_TRUE(eventually([&] {
            return !ref("menuitem \"Open\" in \"open menu\" — visible at").empty();
        })) << read();
        EXPECT_EQ(click("menuitem \"Open\""),
                  R"({"action":"left_click","element":"menuitem \"Open\""})");
        EXPECT_TRUE(says("menu Open")) << fixture->output();
    }
}

// A window whose class names a terminal is never operated, however accessible it is.
TEST_F(AppControl, ATerminalsWindowIsNeverOperated) {
    fixture.emplace(std::vector<std::string>{PAVIX_GTK_FIXTURE_BINARY, "--class=XTerm",
                                             "--name=xterm", "xterm"},
                    std::map<std::string, std::string>{{"NO_AT_BRIDGE", "0"}});
    windowID = announcedWindow(*fixture);
    ASSERT_TRUE(eventually([&] { return shownWindow(fixture->pid()).has_value(); }));
    EXPECT_THAT(
        [&] {
            DesktopControl(ControlParts{reader, actions, input, content}, windowID);
        },
        ThrowsMessage<PavixError>(
            StrEq("local_method_forbidden: Pavix does not operate this app")));
}

// Where the outline puts `words` as text of the picture: its reference and window point.
struct Seen {
    std::string ref;
    int x = 0, y = 0;
};
std::optional<Seen> seen(const std::string& outline, const std::string& role,
                         const std::string& words) {
    std::smatch found;
    if (!std::regex_search(outline, found,
                           std::regex("\\[(ref_[0-9]+)\\] " + role + " \"" + words +
                                      "\" visual — visible at \\(([0-9]+),([0-9]+)\\)"))) {
        return std::nullopt;
    }
    return Seen{found[1], std::stoi(found[2]), std::stoi(found[3])};
}

// A Qt canvas that paints its words (and prints where) unseen by the accessibility bus.
class CanvasControl : public AppControl {
  protected:
    void SetUp() override {
        open({PAVIX_CANVAS_FIXTURE_BINARY}, "] text \"Milestones\" visual — visible", true);
    }
};

TEST_F(CanvasControl, FindsTheDrawnWordsWhereTheyWereDrawnAndClicksThem) {
    int words = 0;
    for (const auto& printed : fixture->lines()) {
        if (printed.rfind("word ", 0) == 0) {
            std::istringstream in(printed.substr(5));
            std::string text;
            double x = 0, y = 0;
            in >> text >> x >> y;
            ++words;
            auto where = seen(outline, "text", text);
            ASSERT_TRUE(where) << text << " not in\n" << outline;
            EXPECT_LE(std::abs(where->x - x), 3) << text << "\n" << outline;
            EXPECT_LE(std::abs(where->y - y), 3) << text << "\n" << outline;
        }
    }
    EXPECT_EQ(words, 6) << fixture->output();
    // A click on a word lands where it was drawn, in the canvas.
    const auto roadmap = *seen(outline, "text", "Roadmap");
    EXPECT_EQ(control->handle("pointer", json::array({"left_click", roadmap.ref})),
              (json{{"action", "left_click"}, {"element", "text \"Roadmap\""}}));
    auto landed = fixture->waitForLine("click ", seconds(5));
    ASSERT_TRUE(landed) << fixture->output();
    int x = 0, y = 0;
    std::istringstream(landed->substr(6)) >> x >> y;
    EXPECT_LE(std::abs(x - roadmap.x), 1) << *landed;
    EXPECT_LE(std::abs(y - roadmap.y), 1) << *landed;
    // The word in the toolbar button's icon is the button's: pressed by a click on it.
    const auto exported = seen(outline, "button", "Export");
    ASSERT_TRUE(exported) << outline;
    control->handle("pointer", json::array({"left_click", exported->ref}));
    EXPECT_TRUE(says("pressed Export")) << fixture->output();
    // Unasked, the picture is read only for an application named a canvas one (by its window
    // class: the fixture has no desktop entry).
    EXPECT_THAT(read(false), ::testing::Not(HasSubstr(" visual — ")));
    control->useCanvasApps({"pavix-canvas-fixture"});
    EXPECT_TRUE(seen(read(false), "text", "Milestones"));
}

TEST(TesseractRecognizer, SaysWhatIsMissing) {
    auto blank = std::make_shared<const std::vector<std::uint8_t>>(64 * 32 * 4, 0xff);
    TesseractRecognizer nowhere({"/nonexistent/tessdata"}), recognizer;
    auto withoutData = [&] { nowhere.recognize({64, 32, 64 * 4, blank}); };
    EXPECT_THAT(withoutData,
                ThrowsMessage<TextRecognitionError>(StrEq(
                    "Text recognition needs Tesseract's English data (the Debian package "
                    "tesseract-ocr-eng): eng.traineddata is in none of /nonexistent/tessdata.")));
    const auto malformed =
        ThrowsMessage<TextRecognitionError>(StrEq("The window's picture is malformed."));
    EXPECT_THAT([&] { recognizer.recognize({64, 40, 64 * 4, blank}); }, malformed);
    EXPECT_THAT([&] { recognizer.recognize({64, 32, 64 * 4, nullptr}); }, malformed);
    EXPECT_EQ(recognizer.recognize({64, 32, 64 * 4, blank}).size(), 0u);
}

}  // namespace
}  // namespace pavix::test
