// The input driver's rules: how the agent's key text is read, which way each target is
// operated (its own action, selection, focus, or a synthetic click only where the application
// owns the point), how text is typed and filled, and what it refuses.
#include <gtest/gtest.h>

#include "core/control/InputDriver.h"
#include "core/control/KeyChord.h"
#include "core/session/PavixError.h"
#include "support/Failure.h"
#include "support/FakeControl.h"

namespace pavix::test {
namespace {

constexpr pid_t kApp = 77, kOther = 88;
const CaptureRect kWindow{100, 50, 640, 480};

TEST(KeyChords, ReadsTheAgentsKeyText) {
    struct Case {
        std::string text;
        std::vector<std::string> chords;  // as KeyChords::text writes them, or the error
    };
    for (const auto& c : std::vector<Case>{
             {"ctrl+shift+t", {"ctrl+shift+t"}},
             {"cmd+a", {"ctrl+a"}},  // the Mac's shortcuts are the control key's here
             {"Option+Left", {"alt+Left"}},
             {"Enter", {"Return"}},
             {"Down Down return", {"Down", "Down", "Return"}},
             {"ctrl++", {"ctrl++"}},
             {"f5 F12", {"F5", "F12"}},
             {"é", {"é"}},
             {"super+space", {"super+space"}},
             {"hyper+x", {"local_method_forbidden: unsupported: modifier hyper"}},
             {"Frobnicate", {"local_method_forbidden: unsupported: key Frobnicate"}},
             {"F25", {"local_method_forbidden: unsupported: key F25"}},
             {"  ", {"local_method_forbidden: unsupported: no key given"}},
         }) {
        std::vector<std::string> got;
        try {
            for (const auto& chord : KeyChords::parse(c.text)) {
                got.push_back(KeyChords::text(chord));
            }
        } catch (const PavixError& e) {
            got = {e.what()};
        }
        EXPECT_EQ(got, c.chords) << c.text;
    }
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) {
        text += (text.empty() ? "" : "; ") + line;
    }
    return text;
}

class Driver : public ::testing::Test {
  protected:
    Driver() {
        // The shared window, with another application's window over its lower right corner.
        input.windows = {{{500, 300, 300, 300}, kOther}, {kWindow, kApp}};
        input.front = kApp;
    }
    OutlineTarget target(const std::string& name, const std::string& role, CaptureRect frame) {
        OutlineTarget t;
        t.handle = element(name);
        t.role = role;
        t.frame = frame;
        t.label = role + " \"" + name + "\"";
        return t;
    }

    FakeActions actions;
    FakeDesktopInput input;
    InputDriver driver{kApp, 4242, actions, input, InputPacing::none()};
};

TEST_F(Driver, EachTargetIsOperatedItsOwnWayAndNeverThroughAnotherWindow) {
    const CaptureRect open{110, 60, 40, 20};      // centre 130,70: the app's own
    const CaptureRect covered{600, 400, 40, 20};  // centre 620,410: under the other window
    const CaptureRect tiny{130, 70, 1, 1};
    struct Case {
        std::string name, role;
        CaptureRect frame;
        int count;
        bool web;
        std::string calls, events, error;
    };
    actions.pressable = {"Save", "Covered", "Row 3"};
    actions.selectable = {"Row 3"};
    actions.focusable = {"Name"};
    for (const auto& c : std::vector<Case>{
             {"Save", "button", open, 1, false, "press Save", "", ""},
             // Its own press works under a covering window too: no pointer is involved.
             {"Covered", "button", covered, 1, false, "press Covered", "", ""},
             {"Plain", "button", open, 1, false, "press Plain", "click 130,70", ""},
             {"Hidden", "button", covered, 1, false, "press Hidden", "",
              "Nothing to click at that point"},
             {"Row 3", "row", open, 1, false, "select Row 3", "", ""},
             {"Row 9", "row", open, 1, false, "select Row 9", "", "Could not select row \"Row 9\""},
             {"Name", "textbox", open, 1, false, "focus Name", "", ""},
             {"Row 3", "row", open, 2, false, "", "click 130,70 twice", ""},
             {"Row 3", "row", covered, 2, false, "press Row 3", "", ""},
             // In a page, the pointer goes first: pages listen for it.
             {"Save", "link", open, 1, true, "", "click 130,70", ""},
             {"Tiny", "button", tiny, 1, false, "press Tiny", "", "Nothing to click at that point"},
         }) {
        actions.calls.clear();
        input.events.clear();
        auto t = target(c.name, c.role, c.frame);
        t.web = c.web;
        EXPECT_EQ(failureOf<PavixError>([&] { driver.click(t, kWindow, c.count); }), c.error)
            << c.name;
        EXPECT_EQ(joined(actions.calls), c.calls) << c.name << " " << c.count;
        EXPECT_EQ(joined(input.events), c.events) << c.name << " " << c.count;
    }
    // Every action leaves samples on the trail, ending at the target's centre.
    ASSERT_FALSE(driver.telemetry().empty());
    EXPECT_EQ(driver.telemetry().back().x, 131);  // the last target's centre, rounded
    EXPECT_EQ(driver.telemetry().back().kind, "click");
}

TEST_F(Driver, PointsOutsideTheWindowOrUnderAnotherOneGetNoEvent) {
    for (ScreenPoint p : {ScreenPoint{620, 410}, ScreenPoint{20, 20}, ScreenPoint{900, 60}}) {
        EXPECT_EQ(failureOf<PavixError>([&] { driver.clickAt(p, kWindow); }),
                  "Nothing to click at that point");
        EXPECT_EQ(
            failureOf<PavixError>([&] { driver.scroll(p, ScrollDirection::down, 3, kWindow); }),
            "Nothing to scroll at that point");
    }
    EXPECT_TRUE(input.events.empty());
    driver.clickAt({200, 100}, kWindow, 2);
    driver.scroll({200, 100}, ScrollDirection::up, 500, kWindow);
    EXPECT_EQ(input.events,
              (std::vector<std::string>{"click 200,100 twice", "scroll up 50 200,100"}));
}

TEST_F(Driver, TypesWithTheApplicationInFrontAndNeverIntoAPasswordField) {
    input.front = kOther;
    input.active = 900;
    input.owners = {{900, kOther}};
    driver.typeKeys("a\r\nb\nc");
    EXPECT_EQ(input.activations, 1);
    EXPECT_EQ(input.front, kApp);
    EXPECT_EQ(input.events, (std::vector<std::string>{"type a", "type Return", "type b",
                                                      "type Return", "type c"}));

    // The focus moves to a password field after the first character: nothing more is typed.
    input.events.clear();
    FocusedElement name{element("Name"), true, false}, password{element("Password"), true, true};
    actions.focusSequence = {name, password};
    EXPECT_EQ(failureOf<PavixError>([&] { driver.typeKeys("xyz"); }), "local_sign_in_required");
    EXPECT_EQ(input.events, std::vector<std::string>{"type x"});
    // Keys that write are refused there too; keys that move on are not.
    EXPECT_EQ(failureOf<PavixError>([&] { driver.press("q"); }), "local_sign_in_required");
    driver.press("Tab ctrl+a");
    EXPECT_EQ(input.events, (std::vector<std::string>{"type x", "key Tab", "key ctrl+a"}));

    // The front goes back to the window that had it, once.
    driver.handFrontBack();
    EXPECT_EQ(input.active, 900u);
    EXPECT_EQ(input.front, kOther);
    driver.handFrontBack();
    EXPECT_EQ(input.activations, 2);
    // The user took the front meanwhile: it stays where the user put it.
    actions.focusSequence.clear();
    driver.typeKeys("d");
    input.active = 901, input.front = kOther + 1;
    driver.handFrontBack();
    EXPECT_EQ(input.active, 901u);
    EXPECT_EQ(input.activations, 3);

    // Another application keeps the front.
    actions.focusSequence.clear();
    input.front = kOther;
    input.comesForward = false;
    input.events.clear();
    EXPECT_EQ(failureOf<PavixError>([&] { driver.typeKeys("a"); }),
              "another app came in front while typing");
    EXPECT_TRUE(input.events.empty());
}

TEST_F(Driver, FillsThroughTheTextInterfaceAndChecksWhatLanded) {
    auto name = target("Name", "textbox", {110, 60, 200, 24});
    actions.editable = {"Name"};
    driver.fill(name, "Ada", kWindow);
    EXPECT_EQ(actions.calls.back(), "replace Name=Ada");
    EXPECT_TRUE(input.events.empty());

    actions.keeps = "Ad";  // a field that cuts what it is given
    EXPECT_EQ(failureOf<PavixError>([&] { driver.fill(name, "Ada", kWindow); }),
              "The text field kept \"Ad\" instead of the text given");

    // A field without the interface is focused, emptied and typed into.
    actions.editable.clear();
    actions.focusable = {"Name"};
    driver.fill(name, "Bo", kWindow);
    EXPECT_EQ(input.events, (std::vector<std::string>{"key ctrl+a", "type B", "type o"}));

    auto secret = target("Password", "textbox", {110, 90, 200, 24});
    secret.secure = true;
    actions.calls.clear();
    input.events.clear();
    EXPECT_EQ(failureOf<PavixError>([&] { driver.fill(secret, "hunter2", kWindow); }),
              "local_sign_in_required");
    EXPECT_TRUE(actions.calls.empty() && input.events.empty());
}

TEST_F(Driver, TogglesAndOptionsEndInTheStateAsked) {
    auto remember = target("Remember me", "checkbox", {110, 60, 100, 20});
    actions.pressable = {"Remember me"};
    driver.setChecked(remember, true, kWindow);
    driver.setChecked(remember, true, kWindow);  // already on: no second press
    EXPECT_EQ(std::count(actions.calls.begin(), actions.calls.end(), "press Remember me"), 1);
    actions.stuck = {"Remember me"};
    EXPECT_EQ(failureOf<PavixError>([&] { driver.setChecked(remember, false, kWindow); }),
              "checkbox \"Remember me\" did not change");
    EXPECT_EQ(failureOf<PavixError>(
                  [&] { driver.setChecked(target("Save", "button", {}), true, kWindow); }),
              "local_method_forbidden: unsupported: button is not a toggle");

    auto colour = target("Colour", "combobox", {110, 60, 100, 20});
    driver.choose(colour, "Green", kWindow);
    EXPECT_EQ(failureOf<PavixError>([&] { driver.choose(colour, "Mauve", kWindow); }),
              "local_method_forbidden: not found: option \"Mauve\" of combobox \"Colour\"");
}

TEST_F(Driver, TypingKeepsAHandsRhythm) {
    InputDriver paced{kApp, 4242, actions, input};
    std::set<long long> seen;
    for (int i = 0; i < 400; ++i) {
        auto pause = paced.characterDelay().count();
        ASSERT_GE(pause, 85);
        ASSERT_LE(pause, 155);
        seen.insert(pause);
    }
    EXPECT_GT(seen.size(), 30u);  // spread over the range, not one fixed pause
}

}  // namespace
}  // namespace pavix::test
