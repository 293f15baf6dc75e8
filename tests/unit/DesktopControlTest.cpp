// The agent's control session: which applications it never operates, the outline and text it
// reads from the shared window, and the sentences the agent hears when it cannot.
#include <gtest/gtest.h>

#include "core/control/ControlPolicy.h"
#include "core/control/DesktopControl.h"
#include "core/session/PavixError.h"
#include "support/Failure.h"
#include "support/FakeControl.h"
#include "support/Fakes.h"

namespace pavix::test {
namespace {

using nlohmann::json;

TEST(ControlPolicy, RefusesTerminalsPasswordManagersAndSystemTools) {
    using Name = std::optional<std::string>;
    const std::vector<std::tuple<std::string, Name, bool>> cases{
        {"org.gnome.Terminal.desktop", std::nullopt, true},
        {"org.keepassxc.KeePassXC", "KeePassXC", true},
        {"gnome-control-center", "Settings", true},
        {"", "Konsole", true},
        {"org.gnome.TextEditor", "Text Editor", false},
        {"", "Terminal notes", false},  // a name must match whole
        {"", std::nullopt, false}};
    for (const auto& [id, name, denied] : cases) {
        EXPECT_EQ(ControlPolicy::denied(id, name), denied) << id << " " << name.value_or("");
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
        ElementFacts text;
        text.kind = ElementFacts::Kind::staticText;
        text.value = "Hello";
        auto remember = facts("checkbox", "Remember me", {110, 90, 120, 20});
        remember.checked = false;
        tree.children = {{facts("button", "Save", {110, 60, 40, 20}), {}, element("Save")},
                         {text, {}, {}},
                         {remember, {}, element("Remember me")}};
        accessibility.tree = tree;
        // The window is the application's own on the screen, in front; its buttons press.
        input.windows = {{{100, 50, 640, 480}, 77}};
        input.front = 77;
        actions.pressable = {"Save", "Remember me"};
    }

    // The reply as JSON text, or the failure's sentence.
    static std::string run(DesktopControl& control, const std::string& method, json args) {
        try {
            return control.handle(method, args).dump();
        } catch (const PavixError& e) {
            return e.what();
        }
    }
    ControlParts parts() { return {accessibility, actions, input, content}; }
    // "Signed in as Ann Example" shows in the window, and the session knows the user's name.
    OutlineOptions showTheUsersName() {
        ElementFacts signedIn;
        signedIn.kind = ElementFacts::Kind::staticText;
        signedIn.value = "Signed in as Ann Example";
        signedIn.frame = CaptureRect{500, 60, 200, 20};
        accessibility.tree->children.push_back({signedIn, {}, {}});
        OutlineOptions options;
        options.identityName = "Ann Example";
        return options;
    }

    FakeAccessibility accessibility;
    FakeActions actions;
    FakeDesktopInput input;
    FakeShareableContent content;
};

TEST_F(Control, ReadsTheSharedWindowAndKeepsItsLastOutline) {
    DesktopControl control(parts(), 4242);
    EXPECT_EQ(control.handle("readPage", json::array()),
              "Window \"notes.txt\"\n"
              "  [ref_1] button \"Save\" — visible at (30,20) window points\n"
              "  [ref_2] checkbox \"Remember me\" unchecked — visible at (70,50) window points\n"
              "Scroll areas (layout only; offscreen content is not visual proof): "
              "{\"regions\":[]}");
    EXPECT_EQ(accessibility.lastWindow.pid, 77);
    EXPECT_EQ(accessibility.lastWindow.frame.width, 640);
    // The text comes from the last read; a read happens only when there is none.
    EXPECT_EQ(control.handle("pageText", json::array()), "Hello");
    EXPECT_EQ(accessibility.reads, 1);
    EXPECT_EQ(control.snapshot()->targets.at("ref_1").label, "button \"Save\"");

    const std::string unreadable = "The shared window cannot be read. Bring it back on screen.";
    accessibility.tree.reset();  // the application no longer shows the window
    EXPECT_EQ(run(control, "readPage", json::array()), unreadable);
    content.set({});
    EXPECT_EQ(run(control, "readPage", json::array()), unreadable);
}

TEST_F(Control, RefusesWithoutAccessibilityAndForAppsItNeverOperates) {
    accessibility.on = false;
    EXPECT_EQ(failureOf<PavixError>([&] { DesktopControl(parts(), 4242); }),
              "local_method_forbidden: Accessibility permission is off");
    accessibility.on = true;
    auto terminal = content.current();
    terminal.windows[0].appId = "org.gnome.Terminal";
    content.set(terminal);
    EXPECT_EQ(failureOf<PavixError>([&] { DesktopControl(parts(), 4242); }),
              "local_method_forbidden: Pavix does not operate this app");
    EXPECT_EQ(failureOf<PavixError>([&] { DesktopControl(parts(), 1); }),
              "The shared window cannot be read. Bring it back on screen.");
    EXPECT_EQ(accessibility.reads, 0);
}

// The methods that operate the window read their positional arguments, name what they
// refuse, and act only on references of the last read.
TEST_F(Control, OperatesElementsOfTheLastReadByReferenceOrPoint) {
    DesktopControl control(parts(), 4242, {}, InputPacing::none());
    const json saveRef = json::array({"left_click", {{"ref", "ref_1"}}});
    const std::string savePressed = R"({"action":"left_click","element":"button \"Save\""})";
    EXPECT_EQ(run(control, "pointer", saveRef), "stale element reference");  // nothing read yet
    run(control, "readPage", json::array());
    const std::string missing = "local_method_forbidden: missing ref";
    const std::string invalid = "local_method_forbidden: invalid pointer target";
    const std::string checked = R"(,"element":"checkbox \"Remember me\""})";
    const std::vector<std::tuple<std::string, json, std::string>> cases{
        {"pointer", saveRef, savePressed},
        {"pointer", json::array({"left_click", "ref_1"}), savePressed},
        {"pointer", json::array(), missing},
        {"pointer", json::array({"left_click", {{"note", 1}}}), missing},
        {"pointer", json::array({"left_click", {{"ref", "ref_9"}}}), "stale element reference"},
        {"pointer", json::array({"left_click", {{"ref", 1}}}), "stale element reference"},
        {"pointer", json::array({"left_click", {{"x", "ten"}, {"y", 5}}}), invalid},
        {"pointer", json::array({"left_click", {{"x", 700}, {"y", 5}}}), invalid},
        {"pointer", json::array({"double_click", {{"coordinate", {10, 20}}}}),
         R"({"action":"double_click","at":[10.0,20.0]})"},
        {"pointer", json::array({"drag", {{"ref", "ref_1"}}}),
         "local_method_forbidden: unsupported: pointer action drag"},
        {"formInput", json::array({"ref_2", "Yes"}), R"({"checked":true)" + checked},
        {"formInput", json::array({"ref_2", true}), R"({"checked":true)" + checked},
        {"formInput", json::array({"ref_2", "off"}), R"({"checked":false)" + checked},
        {"formInput", json::array(), missing},
        {"typeText", json::array({"hi"}), "No text field is focused"},
        {"pressKey", json::array({"ctrl+s"}), R"({"keys":"ctrl+s"})"},
        {"pressKey", json::array({"hyper+s"}),
         "local_method_forbidden: unsupported: modifier hyper"},
        {"scrollBy", json::array(), R"({"amount":3,"direction":"down"})"},
        {"scrollBy", json::array({"up", 2, "ref_1"}), R"({"amount":2,"direction":"up"})"},
        {"scrollBy", json::array({"sideways"}),
         "local_method_forbidden: unsupported: scroll direction sideways"},
        {"redactSensitiveText", json::array({"remember"}),
         R"({"matches":1,"rects":[{"reason":"text","rect":[10.0,40.0,120.0,20.0],"ref":"ref_2"}]})"},
        {"redactSensitiveText", json::array(), R"({"matches":0,"rects":[]})"}};
    for (const auto& [method, args, reply] : cases) {
        EXPECT_EQ(run(control, method, args), reply) << method << " " << args.dump();
    }
    EXPECT_EQ(input.events,
              (std::vector<std::string>{"click 110,70 twice", "key ctrl+s", "scroll down 3 420,290",
                                        "scroll up 2 130,70"}));
    // The trail of what was done goes with the replies, once.
    auto trail = control.takeTelemetry().pointerTrail;
    ASSERT_FALSE(trail.empty());
    EXPECT_EQ(trail.back()["kind"], "scroll");
    EXPECT_TRUE(control.takeTelemetry().pointerTrail.empty());
    // A new read starts the references again: the old ones still name the same places.
    run(control, "readPage", json::array());
    EXPECT_EQ(run(control, "pointer", saveRef), savePressed);
}

// Where the user's name and password fields show is told to the agent: in the telemetry of the
// read that saw them, and in what redactSensitiveText names, in window points.
TEST_F(Control, NamesWhereTheUsersNameAndPasswordFieldsShow) {
    auto password = facts("textbox", "Password", {110, 120, 160, 24});
    password.secure = true;
    password.value = "hunter2";
    const auto options = showTheUsersName();
    accessibility.tree->children.push_back({password, {}, element("Password")});
    DesktopControl control(parts(), 4242, options, InputPacing::none());

    // Without a read yet, it reads first.
    EXPECT_EQ(control.handle("redactSensitiveText", json::array()).dump(),
              R"({"matches":2,"rects":[{"reason":"password","rect":[10.0,70.0,160.0,24.0],)"
              R"("ref":"ref_3"},{"reason":"name","rect":[400.0,10.0,200.0,20.0]}]})");
    EXPECT_EQ(control.handle("pageText", json::array()).get<std::string>().find("hunter2"),
              std::string::npos);
    auto telemetry = control.takeTelemetry();
    ASSERT_EQ(telemetry.identitySightings.size(), 1u);
    EXPECT_EQ(telemetry.identitySightings[0]["rects"], json::parse("[[400.0,10.0,200.0,20.0]]"));
    EXPECT_GE(telemetry.identitySightings[0]["atMs"].get<long long>(), 0);
    EXPECT_TRUE(control.takeTelemetry().identitySightings.empty());

    // A session that does not know the user's name notes no sighting.
    DesktopControl anonymous(parts(), 4242, {}, InputPacing::none());
    anonymous.handle("readPage", json::array());
    EXPECT_TRUE(anonymous.takeTelemetry().identitySightings.empty());
}

// The pointer's samples and the user's name are placed in the recorded picture: the window's
// own top-left while it is recorded alone (or not at all), the region's while it is recorded
// with its pop-ups; a window that moved between two calls is placed where each call found it.
TEST_F(Control, PlacesTheTelemetryInTheRecordedPicture) {
    DesktopControl control(parts(), 4242, showTheUsersName(), InputPacing::none());
    // The region recorded, how far the window and its elements move right first, the last
    // sample of a click on "Save", and where "Ann Example" shows.
    using Region = std::optional<CaptureRect>;
    const std::vector<std::tuple<Region, double, json, json>> cases{
        {std::nullopt, 0, {30.0, 20.0}, {400.0, 10.0, 200.0, 20.0}},
        {CaptureRect{0, 0, 940, 730}, 0, {130.0, 70.0}, {500.0, 60.0, 200.0, 20.0}},
        {CaptureRect{40, 20, 760, 540}, 0, {90.0, 50.0}, {460.0, 40.0, 200.0, 20.0}},
        {CaptureRect{40, 20, 760, 540}, 100, {190.0, 50.0}, {560.0, 40.0, 200.0, 20.0}},
        {std::nullopt, 100, {30.0, 20.0}, {400.0, 10.0, 200.0, 20.0}}};
    double moved = 0;
    for (const auto& [region, moveBy, click, name] : cases) {
        auto windows = content.current();
        windows.windows[0].x += moveBy;
        content.set(windows);
        accessibility.tree->facts.frame->x += moveBy;
        for (auto& child : accessibility.tree->children) {
            if (child.facts.frame) {
                child.facts.frame->x += moveBy;
            }
        }
        moved += moveBy;
        control.place(region);
        control.handle("readPage", json::array());
        control.handle("pointer", json::array({"left_click", {{"ref", "ref_1"}}}));
        const auto telemetry = control.takeTelemetry();
        SCOPED_TRACE("region " + (region ? std::to_string(region->x) : "none") + ", moved " +
                     std::to_string(moved));
        ASSERT_FALSE(telemetry.pointerTrail.empty());
        const auto& last = telemetry.pointerTrail.back();
        EXPECT_EQ(last["kind"], "click");
        EXPECT_EQ(json::array({last["x"], last["y"]}), click);
        ASSERT_EQ(telemetry.identitySightings.size(), 1u);
        EXPECT_EQ(telemetry.identitySightings[0]["rects"][0], name);
    }
}

}  // namespace
}  // namespace pavix::test
