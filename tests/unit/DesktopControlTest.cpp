// The agent's control session: which applications it never operates, the outline and text it
// reads from the shared window, and the sentences the agent hears when it cannot.
#include <gtest/gtest.h>

#include "core/control/ControlPolicy.h"
#include "core/control/DesktopControl.h"
#include "core/session/PavixError.h"
#include "support/Fakes.h"

namespace pavix::test {
namespace {

using nlohmann::json;

TEST(ControlPolicy, RefusesTerminalsPasswordManagersAndSystemTools) {
    struct Case {
        std::string id;
        std::optional<std::string> name;
        bool denied;
    };
    for (const auto& c : std::vector<Case>{
             {"org.gnome.Terminal", std::nullopt, true},
             {"org.gnome.Terminal.desktop", std::nullopt, true},
             {"com.apple.Terminal", std::nullopt, true},
             {"org.keepassxc.KeePassXC", "KeePassXC", true},
             {"gnome-control-center", "Settings", true},
             {"", std::string("Konsole"), true},
             {"", std::string("kitty"), true},
             {"org.gnome.TextEditor", "Text Editor", false},
             {"firefox", "Firefox", false},
             {"", std::string("Terminal notes"), false},  // a name must match whole
             {"", std::nullopt, false},
         }) {
        EXPECT_EQ(ControlPolicy::denied(c.id, c.name), c.denied)
            << c.id << " " << c.name.value_or("");
    }
}

class Control : public ::testing::Test {
  protected:
    Control() {
        ShareableWindow window;
        window.id = 4242;
        window.title = "notes.txt";
        window.appId = "org.gnome.TextEditor";
        window.pid = 77;
        window.x = 100, window.y = 50, window.width = 640, window.height = 480;
        window.onScreen = true;
        content.set({{window}, {}});
        AccessibleElement tree;
        tree.facts.frame = CaptureRect{100, 50, 640, 480};
        ElementFacts save;
        save.roleWord = "button";
        save.title = "Save";
        save.frame = CaptureRect{110, 60, 40, 20};
        ElementFacts text;
        text.kind = ElementFacts::Kind::staticText;
        text.value = "Hello";
        tree.children = {{save, {}, {}}, {text, {}, {}}};
        accessibility.tree = tree;
    }

    // The sentence a failure says, or "" when `run` succeeded.
    template <class F>
    static std::string failure(F run) {
        try {
            run();
        } catch (const PavixError& e) {
            return e.what();
        }
        return "";
    }

    FakeAccessibility accessibility;
    FakeShareableContent content;
};

TEST_F(Control, ReadsTheSharedWindowAndKeepsItsLastOutline) {
    DesktopControl control(accessibility, content, 4242);
    EXPECT_EQ(control.handle("readPage", json::array()),
              "Window \"notes.txt\"\n"
              "  [ref_1] button \"Save\" — visible at (30,20) window points\n"
              "Scroll areas (layout only; offscreen content is not visual proof): "
              "{\"regions\":[]}");
    EXPECT_EQ(accessibility.lastWindow.pid, 77);
    EXPECT_EQ(accessibility.lastWindow.frame.width, 640);
    // The text comes from the last read; a read happens only when there is none.
    EXPECT_EQ(control.handle("pageText", json::array()), "Hello");
    EXPECT_EQ(accessibility.reads, 1);
    EXPECT_EQ(control.snapshot()->targets.at("ref_1").label, "button \"Save\"");

    accessibility.tree.reset();  // the application no longer shows the window
    EXPECT_EQ(failure([&] { control.handle("readPage", json::array()); }),
              "The shared window cannot be read. Bring it back on screen.");
    content.set({});
    EXPECT_EQ(failure([&] { control.handle("readPage", json::array()); }),
              "The shared window cannot be read. Bring it back on screen.");
}

TEST_F(Control, RefusesWithoutAccessibilityAndForAppsItNeverOperates) {
    accessibility.on = false;
    EXPECT_EQ(failure([&] { DesktopControl(accessibility, content, 4242); }),
              "local_method_forbidden: Accessibility permission is off");
    accessibility.on = true;
    auto terminal = content.current();
    terminal.windows[0].appId = "org.gnome.Terminal";
    content.set(terminal);
    EXPECT_EQ(failure([&] { DesktopControl(accessibility, content, 4242); }),
              "local_method_forbidden: Pavix does not operate this app");
    EXPECT_EQ(failure([&] { DesktopControl(accessibility, content, 1); }),
              "The shared window cannot be read. Bring it back on screen.");
    EXPECT_EQ(accessibility.reads, 0);
}

}  // namespace
}  // namespace pavix::test
