// The visual outline: which recognised lines become targets and how their lines read, which
// applications are canvas applications, and the control session reading a window's picture
// and clicking what it found there.
#include <gtest/gtest.h>

#include "core/capture/CaptureStill.h"
#include "core/control/DesktopControl.h"
#include "core/control/OutlineBuilder.h"
#include "core/control/VisualOutline.h"
#include "core/session/PavixError.h"
#include "support/FakeCapturePlatform.h"
#include "support/FakeControl.h"
#include "support/Fakes.h"
#include "support/StudioTest.h"

namespace pavix::test {
namespace {

using nlohmann::json;

constexpr const char* kScrollLine =
    "Scroll areas (layout only; offscreen content is not visual proof): {\"regions\":[]}";

// A window at (100,50), 640×480, with a "Save" button, an unnamed button and a text field.
AccessibleElement tree() {
    AccessibleElement window;
    window.facts.frame = CaptureRect{100, 50, 640, 480};
    window.children = {{facts("button", "Save", {110, 60, 60, 24}), {}, element("Save")},
                       {facts("button", "", {200, 60, 80, 30}), {}, element("icon")},
                       {facts("textbox", "Name", {110, 100, 200, 24}), {}, element("Name")}};
    return window;
}

OutlineSnapshot base() {
    return OutlineBuilder::build(tree(), {100, 50, 640, 480}, {});
}

// The lines augment added to the base outline.
std::string added(const OutlineSnapshot& snapshot) {
    const auto before = base().outline;
    const auto cut = before.rfind('\n') + 1;
    const auto& after = snapshot.outline;
    EXPECT_EQ(after.substr(0, cut), before.substr(0, cut));
    EXPECT_EQ(after.substr(after.rfind('\n') + 1), kScrollLine);  // still the last line
    return after.substr(cut, after.size() - cut - std::string(kScrollLine).size());
}

TEST(VisualOutline, KeepsConfidentNewWordsAsTargetsWithTheirLines) {
    struct Case {
        const char* why;
        RecognizedText line;
        std::string expected;  // the added line; "" when dropped
    };
    for (const auto& c : std::vector<Case>{
             {"a word",
              {"Roadmap", {300, 100, 60, 12}, 90},
              "  [ref_4] text \"Roadmap\" visual — visible at (230,56) window points\n"},
             {"centre rounded from the window's corner",
              {"Q3", {300.4, 100.2, 20.3, 9.9}, 90},
              "  [ref_4] text \"Q3\" visual — visible at (211,55) window points\n"},
             {"at the threshold",
              {"Plan", {300, 300, 40, 12}, 60},
              "  [ref_4] text \"Plan\" visual — visible at (220,256) window points\n"},
             {"below the threshold", {"Plan", {300, 300, 40, 12}, 59.9}, ""},
             {"no letter or digit", {"|—|", {300, 300, 40, 12}, 95}, ""},
             {"an icon font's picture", {"\uE8B6", {300, 300, 40, 12}, 95}, ""},
             {"a word beyond ASCII",
              {"Über", {300, 300, 40, 12}, 95},
              "  [ref_4] text \"Über\" visual — visible at (220,256) window points\n"},
             {"outside the window", {"Far", {900, 300, 40, 12}, 95}, ""},
             {"the Save button's own text", {"Save", {120, 66, 30, 12}, 95}, ""},
             {"the same text in other case and spacing", {" save ", {120, 66, 30, 12}, 95}, ""},
             {"part of the field's name", {"Nam", {115, 104, 30, 14}, 95}, ""},
             {"the same text elsewhere",
              {"Save", {400, 300, 30, 12}, 95},
              "  [ref_4] text \"Save\" visual — visible at (315,256) window points\n"},
             {"other text on a named button",
              {"Export", {115, 66, 50, 12}, 95},
              "  [ref_4] button \"Export\" visual — visible at (40,22) window points\n"},
             {"text on an unnamed button",
              {"Share", {215, 68, 50, 14}, 95},
              "  [ref_4] button \"Share\" visual — visible at (140,25) window points\n"},
             {"text in a field is not pressable",
              {"Ada", {115, 104, 30, 14}, 95},
              "  [ref_4] text \"Ada\" visual — visible at (30,61) window points\n"},
             {"quoted as JSON",
              {"Say \"hi\"", {300, 300, 40, 12}, 95},
              "  [ref_4] text \"Say \\\"hi\\\"\" visual — visible at (220,256) window points\n"},
         }) {
        auto snapshot = VisualOutline::augment(base(), {c.line});
        EXPECT_EQ(added(snapshot), c.expected) << c.why;
        EXPECT_EQ(snapshot.targets.size(), c.expected.empty() ? 3u : 4u) << c.why;
    }
}

TEST(VisualOutline, AddsTargetsInReadingOrderAfterTheLargestReference) {
    auto snapshot = base();
    snapshot.targets["ref_9"] = snapshot.targets.at("ref_3");
    snapshot.text = "Hello";
    VisualOptions options;
    options.identityName = "Ann Example";
    options.textLimit = 20;
    snapshot = VisualOutline::augment(std::move(snapshot),
                                      {{"Owner Ann Example", {400, 300, 100, 12}, 80},
                                       {"Budget", {300, 118, 50, 12}, 80},
                                       {"Agenda", {200, 120, 50, 12}, 80}},
                                      options);
    EXPECT_EQ(
        added(snapshot),
        "  [ref_10] text \"Agenda\" visual — visible at (125,76) window points\n"
        "  [ref_11] text \"Budget\" visual — visible at (225,74) window points\n"
        "  [ref_12] text \"Owner Ann Example\" visual — visible at (350,256) window points\n");
    const auto& target = snapshot.targets.at("ref_11");
    EXPECT_TRUE(target.visual);
    EXPECT_FALSE(target.handle);
    EXPECT_EQ(target.label, "text \"Budget\"");
    EXPECT_EQ(target.frame, (CaptureRect{300, 118, 50, 12}));
    EXPECT_EQ(snapshot.text, "Hello\nAgenda\nBudget\nOwn");  // 20 characters
    EXPECT_EQ(snapshot.identity, (std::vector<CaptureRect>{{400, 300, 100, 12}}));
}

TEST(VisualOutline, PutsLinesBeforeTheClosingScrollAreasLine) {
    EXPECT_EQ(VisualOutline::insertLines("Window \"A\"\n" + std::string(kScrollLine), "  x\n"),
              "Window \"A\"\n  x\n" + std::string(kScrollLine));
    EXPECT_EQ(VisualOutline::insertLines(kScrollLine, "  x\n"), "  x\n" + std::string(kScrollLine));
    EXPECT_EQ(VisualOutline::insertLines("  [ref_1] button", "  x\n"), "  [ref_1] button\n  x\n");
}

TEST(VisualOutline, MapsPictureFramesToScreenPoints) {
    const std::vector<RecognizedText> lines = {{"A", {100.5, 40, 20, 10}, 90}};
    // An odd window in an even picture: one pixel a point, centred.
    EXPECT_EQ(VisualOutline::toScreen(lines, 802, 600, {10, 20, 801, 600})[0].frame,
              (CaptureRect{110, 60, 20, 10}));
    // Two pixels a point.
    EXPECT_EQ(VisualOutline::toScreen(lines, 1600, 1200, {10, 20, 800, 600})[0].frame,
              (CaptureRect{60.25, 40, 10, 5}));
    EXPECT_TRUE(VisualOutline::toScreen(lines, 0, 600, {10, 20, 800, 600}).empty());
}

TEST(VisualOutline, KnowsTheCanvasApplicationsAndTheUsersOwn) {
    const auto extra = VisualOutline::appList(" com.example.Board ,, canvas-board,");
    EXPECT_EQ(extra, (std::vector<std::string>{"com.example.Board", "canvas-board"}));
    struct Case {
        std::string id;
        std::optional<std::string> name;
        bool canvas;
    };
    for (const auto& c : std::vector<Case>{
             {"com.figma.Desktop", std::nullopt, true},
             {"com.adobe.photoshop", std::nullopt, true},
             {"org.inkscape.Inkscape.desktop", "Inkscape", true},
             {"org.kde.krita", std::nullopt, true},
             {"blender", std::nullopt, true},
             {"figma-linux", std::nullopt, true},
             {"", std::string("GIMP"), true},
             {"", std::string("Figma Linux"), true},
             {"com.example.board", std::nullopt, true},  // the user's, any case
             {"", std::string("Canvas Board"), true},    // the user's, by window class
             {"org.gnome.TextEditor", std::string("Blender"), false},  // the id decides
             {"", std::string("Canvas"), false},
             {"", std::nullopt, false},
         }) {
        EXPECT_EQ(VisualOutline::isCanvasApp(c.id, c.name, extra), c.canvas)
            << c.id << " " << c.name.value_or("");
    }
    EXPECT_FALSE(VisualOutline::isCanvasApp("com.example.board", std::nullopt));
}

TEST(CaptureStill, ReturnsTheFirstFrameOrWhyThereIsNone) {
    auto script = std::make_shared<testing::FakeStreamScript>();
    CaptureFilter filter;
    filter.windowID = 7;
    auto take = [&](std::chrono::milliseconds timeout) {
        testing::FakeCaptureStream stream(script);
        return CaptureStill::firstFrame(stream, filter, 64, 48, timeout);
    };
    auto frame = take(std::chrono::seconds(5));
    EXPECT_EQ(frame.width, 64);
    EXPECT_EQ(frame.pixels->size(), 64u * 48 * 4);
    EXPECT_EQ(script->filters.back().windowID, 7u);
    EXPECT_FALSE(script->configs.back().showsCursor);
    EXPECT_EQ(script->stops, 1);

    auto code = [&](std::chrono::milliseconds timeout) {
        try {
            take(timeout);
        } catch (const CaptureError& e) {
            return e.code();
        }
        return 0;
    };
    script->deliverFrames = false;
    EXPECT_EQ(code(std::chrono::milliseconds(20)), CaptureError::kFailedToStart);
    script->startError = CaptureError(CaptureError::kNoCaptureSource, "gone");
    EXPECT_EQ(code(std::chrono::seconds(5)), CaptureError::kNoCaptureSource);
}

// A recogniser that reads scripted lines in every picture, or fails.
class ScriptedRecognizer : public TextRecognizer {
  public:
    std::vector<RecognizedText> recognize(const VideoFrame& picture) override {
        sizes.emplace_back(picture.width, picture.height);
        if (!failure.empty()) {
            throw TextRecognitionError(failure);
        }
        return lines;
    }
    std::vector<RecognizedText> lines;
    std::string failure;
    std::vector<std::pair<int, int>> sizes;
};

class VisualControl : public ::testing::Test {
  protected:
    VisualControl() {
        ShareableWindow window;
        window.id = 4242;
        window.appId = "org.example.Board";
        window.pid = 77;
        window.x = 100, window.y = 50, window.width = 641, window.height = 480;
        window.onScreen = true;
        content.set({{window}, {}});
        accessibility.tree = tree();
        // Picture pixels are screen points less the window's corner.
        recognizer.lines = {{"Roadmap", {200, 150, 60, 12}, 90}};
        input.windows = {{{100, 50, 641, 480}, 77}};
    }
    ControlParts parts(bool canSee = true) {
        ControlParts p{accessibility, actions, input, content};
        if (canSee) {
            p.picture = [this](std::uint32_t id, int width, int height) {
                pictures.push_back(id);
                return VideoFrame{width, height, width * 4,
                                  std::make_shared<std::vector<std::uint8_t>>(width * height * 4)};
            };
            p.recognizer = &recognizer;
        }
        return p;
    }
    static std::string run(DesktopControl& control, const std::string& method, json args) {
        try {
            return control.handle(method, args).dump();
        } catch (const PavixError& e) {
            return e.what();
        }
    }

    FakeAccessibility accessibility;
    FakeActions actions;
    FakeDesktopInput input;
    FakeShareableContent content;
    ScriptedRecognizer recognizer;
    std::vector<std::uint32_t> pictures;
};

constexpr const char* kRoadmap =
    "[ref_4] text \\\"Roadmap\\\" visual — visible at (230,156) window points";

TEST_F(VisualControl, ReadsThePictureWhenForcedOrForACanvasAppAndClicksWhereTheTextShows) {
    DesktopControl control(parts(), 4242, {}, InputPacing::none());
    EXPECT_EQ(run(control, "readPage", json::array()).find(" visual — "), std::string::npos);
    EXPECT_TRUE(pictures.empty());
    EXPECT_EQ(run(control, "readPage", json::array({{{"visual", "yes"}}})).find(" visual — "),
              std::string::npos);
    EXPECT_NE(run(control, "readPage", json::array({{{"visual", true}}})).find(kRoadmap),
              std::string::npos);
    EXPECT_EQ(recognizer.sizes.back(), (std::pair<int, int>{642, 480}));  // even, a pixel a point

    control.useCanvasApps({"org.example.board"});
    EXPECT_NE(run(control, "readPage", json::array()).find(kRoadmap), std::string::npos);
    EXPECT_EQ(pictures, (std::vector<std::uint32_t>{4242, 4242}));

    // Clicked at its centre by the pointer: it has no element to press.
    EXPECT_EQ(run(control, "pointer", json::array({"left_click", "ref_4"})),
              R"({"action":"left_click","element":"text \"Roadmap\""})");
    EXPECT_EQ(input.events, (std::vector<std::string>{"click 329,206"}));
    EXPECT_TRUE(actions.calls.empty());
    EXPECT_EQ(run(control, "formInput", json::array({"ref_4", "x"})),
              "local_method_forbidden: unsupported: filling text \"Roadmap\", which shows in the "
              "window's picture only: click it and type instead");
    // Covered by another application's window: nothing lands.
    input.windows.insert(input.windows.begin(), {{300, 190, 100, 50}, 90});
    EXPECT_EQ(run(control, "pointer", json::array({"left_click", "ref_4"})),
              "Nothing to click at that point");
    EXPECT_EQ(input.events.size(), 1u);
}

TEST_F(VisualControl, SaysWhyThePictureWasNotRead) {
    const std::string failed =
        "Text in the window's picture could not be read: The English data is missing.";
    recognizer.failure = "The English data is missing.";
    DesktopControl control(parts(), 4242, {}, InputPacing::none());
    EXPECT_EQ(run(control, "readPage", json::array({{{"visual", true}}})), failed);
    control.useCanvasApps({"org.example.Board"});
    const auto outline = run(control, "readPage", json::array());
    EXPECT_NE(outline.find("[ref_3] textbox \\\"Name\\\" value=\\\"\\\" — visible at (110,62) "
                           "window points\\n(" +
                           failed + ")\\nScroll areas"),
              std::string::npos)
        << outline;
    accessibility.tree.reset();  // nothing on the bus, nothing in the picture
    EXPECT_EQ(run(control, "readPage", json::array()), failed);
    // Once the picture reads, a canvas app that shows nothing on the bus is its picture alone.
    recognizer.failure.clear();
    EXPECT_EQ(control.handle("readPage", json::array()),
              "  [ref_1] text \"Roadmap\" visual — visible at (230,156) window points\n" +
                  std::string(kScrollLine));
    EXPECT_EQ(control.handle("pageText", json::array()), "Roadmap");

    // Without a recogniser.
    DesktopControl blind(parts(false), 4242, {}, InputPacing::none());
    const std::string unavailable =
        "The window's picture cannot be read: text recognition is not available here.";
    EXPECT_EQ(run(blind, "readPage", json::array({{{"visual", true}}})), unavailable);
    EXPECT_EQ(run(blind, "readPage", json::array()),
              "The shared window cannot be read. Bring it back on screen.");
    accessibility.tree = tree();
    blind.useCanvasApps({"org.example.Board"});
    EXPECT_NE(run(blind, "readPage", json::array()).find("(" + unavailable + ")\\nScroll areas"),
              std::string::npos);
}

// The user's "visualOnlyApps" reach the agent's session at every call: the editor of the test
// desktop, named by its window class, is read as a canvas application (here without a
// recogniser, which the outline says).
class VisualSetting : public StudioTest {};

TEST_F(VisualSetting, TheUsersCanvasApplicationsCountFromTheNextCall) {
    show();
    h.pairWithCode();
    h.studio().setAllowControl(true);
    h.studio().selectSource("window-4242");
    h.accessibility.tree = tree();
    const std::string note =
        "(The window's picture cannot be read: text recognition is not "
        "available here.)\nScroll areas";
    auto outline = [&] { return call("readPage")["value"].get<std::string>(); };
    EXPECT_EQ(outline().find(note), std::string::npos);
    h.defaults.set("visualOnlyApps", std::string("org.example.Board, text-editor"));
    EXPECT_NE(outline().find(note), std::string::npos);
    h.defaults.remove("visualOnlyApps");
    EXPECT_EQ(outline().find(note), std::string::npos);
}

}  // namespace
}  // namespace pavix::test
