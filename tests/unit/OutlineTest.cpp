// The outline of a window: the exact shape of each kind of line read from its accessible tree,
// where an element is said to be, the limits of a read, the scroll areas and what is never
// shown; then the visual outline, which recognised lines of the window's picture become
// targets, which applications are canvas applications, and the control session reading a
// window's picture and clicking what it found there.
#include <gtest/gtest.h>

#include "core/capture/CaptureStill.h"
#include "core/control/DesktopControl.h"
#include "core/control/OutlineBuilder.h"
#include "core/control/OutlineText.h"
#include "core/control/VisualOutline.h"
#include "core/session/PavixError.h"
#include "support/FakeCapturePlatform.h"
#include "support/FakeControl.h"
#include "support/Fakes.h"
#include "support/StudioTest.h"

namespace pavix::test {
namespace {

using Kind = ElementFacts::Kind;
using nlohmann::json;

const std::string kScrollLine =
    "Scroll areas (layout only; offscreen content is not visual proof): {\"regions\":[]}";

const CaptureRect kWindow{100, 200, 800, 600};

// An element of `role` centred at (x, y) in window points, 20×20 points large.
ElementFacts at(const std::string& role, double x, double y, std::string title = "") {
    ElementFacts facts;
    facts.roleWord = role;
    facts.title = std::move(title);
    facts.frame = CaptureRect{kWindow.x + x - 10, kWindow.y + y - 10, 20, 20};
    return facts;
}

AccessibleElement windowOf(std::vector<AccessibleElement> children) {
    AccessibleElement window;
    window.facts.frame = kWindow;
    window.children = std::move(children);
    return window;
}

std::vector<std::string> linesOf(const OutlineSnapshot& snapshot) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (auto end = snapshot.outline.find('\n'); end != std::string::npos;
         start = end + 1, end = snapshot.outline.find('\n', start)) {
        lines.push_back(snapshot.outline.substr(start, end - start));
    }
    lines.push_back(snapshot.outline.substr(start));
    return lines;
}

TEST(Outline, EachKindOfTargetHasItsLine) {
    struct Case {
        const char* what;
        std::function<void(ElementFacts&)> make;
        std::string role;
        std::string expected;
    };
    const std::string here = " — visible at (412,36) window points";
    const std::vector<Case> cases = {
        {"a focused button", [](auto& f) { f.focused = true; }, "button",
         "  [ref_1] button \"Save\" focused" + here},
        {"a disabled, checked check box", [](auto& f) { f.enabled = false, f.checked = true; },
         "checkbox", "  [ref_1] checkbox \"Save\" disabled checked" + here},
        {"a radio button that says nothing", [](auto&) {}, "radio",
         "  [ref_1] radio \"Save\" unchecked" + here},
        {"a selected tab", [](auto& f) { f.selected = true; }, "tab",
         "  [ref_1] tab \"Save\" selected" + here},
        {"a password field", [](auto& f) { f.secure = true, f.value = "hunter2"; }, "textbox",
         "  [ref_1] textbox \"Save\" secure" + here},
        {"a focused text field with a selection",
         [](auto& f) { f.focused = true, f.value = "a/b \"c\"", f.selectedText = "b"; }, "textbox",
         "  [ref_1] textbox \"Save\" focused selected text: \"b\" value=\"a/b \\\"c\\\"\"" + here},
        {"a combo box and its options",
         [](auto& f) {
             f.popup = true, f.value = "Red", f.options = {"Red", "Green"};
         },
         "combobox",
         "  [ref_1] combobox \"Save\" value=\"Red\" options=[\"Red\",\"Green\"]" + here},
        {"a combo box whose options cannot be read", [](auto& f) { f.popup = true; }, "combobox",
         "  [ref_1] combobox \"Save\" value=\"\" options=[]" + here},
        {"a slider", [](auto& f) { f.value = "40"; }, "slider",
         "  [ref_1] slider \"Save\" value=\"40\"" + here},
        {"a nameless link", [](auto& f) { f.title.clear(); }, "link", "  [ref_1] link" + here},
        {"a name from the help text", [](auto& f) { f.title.clear(), f.help = "Saves"; }, "button",
         "  [ref_1] button \"Saves\"" + here},
        {"a long name and value, cut",
         [](auto& f) {
             f.title = std::string(250, 'n');
             f.value = std::string(150, 'v');
         },
         "searchbox",
         "  [ref_1] searchbox \"" + std::string(200, 'n') + "\" value=\"" + std::string(120, 'v') +
             "\"" + here},
    };
    for (const auto& c : cases) {
        auto facts = at(c.role, 412, 36, "Save");
        c.make(facts);
        auto snapshot = OutlineBuilder::build(windowOf({{facts, {}, {}}}), kWindow);
        EXPECT_EQ(linesOf(snapshot).at(0), c.expected) << c.what;
        EXPECT_EQ(snapshot.outline.find("hunter2"), std::string::npos) << c.what;
        EXPECT_EQ(snapshot.targets.at("ref_1").role, c.role) << c.what;
    }
}

TEST(Outline, SaysWhereAnElementIsOrInWhichDirectionItLies) {
    const CaptureRect clip{100, 200, 800, 600};
    struct Case {
        CaptureRect element;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {{140, 220, 40, 20}, "visible at (60,30) window points"},
        // Partly outside: the centre of the part that shows.
        {{80, 190, 40, 20}, "visible at (10,5) window points"},
        // One point wide, or one point of overlap: never visible.
        {{300, 300, 1, 40}, "offscreen-clipped (scroll to reveal)"},
        {{899, 300, 40, 40}, "offscreen-clipped (scroll to reveal)"},
        {{300, 800, 40, 20}, "offscreen-below (scroll to reveal)"},
        {{40, 150, 40, 20}, "offscreen-above-left (scroll to reveal)"},
        {{950, 900, 10, 10}, "offscreen-below-right (scroll to reveal)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(OutlineText::location(c.element, kWindow, clip), c.expected)
            << c.element.x << "," << c.element.y;
    }
}

TEST(Outline, AReadStopsAtItsLimitsAndNumbersItsTargetsAfresh) {
    // A chain 70 levels deep: the window and 59 levels below it are visited.
    AccessibleElement deep = windowOf({});
    AccessibleElement* end = &deep;
    for (int level = 1; level < 70; ++level) {
        end->children.push_back({at("button", 50, 50, "level " + std::to_string(level)), {}, {}});
        end = &end->children.back();
    }
    auto snapshot = OutlineBuilder::build(deep, kWindow);
    EXPECT_EQ(snapshot.elements, 60);
    EXPECT_EQ(snapshot.targets.size(), 59u);
    EXPECT_EQ(snapshot.targets.at("ref_59").label, "button \"level 59\"");

    // 5000 siblings: 4000 elements in all, the window among them.
    std::vector<AccessibleElement> wide(5000, {at("link", 10, 10), {}, {}});
    snapshot = OutlineBuilder::build(windowOf(std::move(wide)), kWindow);
    EXPECT_EQ(snapshot.elements, 4000);
    EXPECT_EQ(snapshot.targets.size(), 3999u);
    EXPECT_TRUE(snapshot.targets.count("ref_1") && snapshot.targets.count("ref_3999"));

    // Every read starts at ref_1.
    auto again = OutlineBuilder::build(windowOf({{at("button", 1, 1, "Only"), {}, {}}}), kWindow);
    EXPECT_EQ(again.targets.size(), 1u);
    EXPECT_EQ(again.targets.at("ref_1").label, "button \"Only\"");
}

TEST(Outline, ScrollAreasRowsHoldersTextAndTheWindowsOwnButtons) {
    // A list scrolled inside a panel: 10 rows 20 points high, 30 apart, 4 of them in view.
    AccessibleElement list;
    list.facts.kind = Kind::scrollArea;
    list.facts.frame = CaptureRect{kWindow.x + 20, kWindow.y + 100, 200, 120};
    for (int i = 0; i < 10; ++i) {
        AccessibleElement row{at("row", 100, 110 + 30 * i), {}, {}};
        row.facts.kind = Kind::row;
        ElementFacts cell;
        cell.kind = Kind::staticText;
        cell.value = "Item " + std::to_string(i);
        row.children.push_back({cell, {}, {}});
        list.children.push_back(row);
    }
    AccessibleElement toolbar;
    toolbar.facts.kind = Kind::layoutGroup;
    toolbar.facts.title = "Formatting";
    toolbar.children.push_back({at("button", 300, 20, "Bold"), {}, {}});
    AccessibleElement close{at("button", 790, 10, "Close"), {}, {}};
    close.facts.kind = Kind::decoration;
    ElementFacts secret;
    secret.kind = Kind::staticText;
    secret.secure = true;
    secret.value = "hunter2";

    auto snapshot =
        OutlineBuilder::build(windowOf({list, toolbar, close, {secret, {}, {}}}), kWindow);
    auto lines = linesOf(snapshot);
    ASSERT_EQ(lines.size(), 12u) << snapshot.outline;
    EXPECT_EQ(lines[0], "  [ref_1] row \"Item 0\" — visible at (100,110) window points");
    EXPECT_EQ(lines[5], "  [ref_6] row \"Item 5\" — offscreen-below (scroll to reveal)");
    EXPECT_EQ(lines[10],
              "  [ref_11] button \"Bold\" in \"Formatting\" — visible at (300,20) window "
              "points");
    EXPECT_EQ(lines[11],
              "Scroll areas (layout only; offscreen content is not visual proof): "
              "{\"regions\":[{\"kind\":\"panel\",\"remainingPixels\":{\"down\":170,\"left\":0,"
              "\"right\":0}}]}");
    EXPECT_EQ(snapshot.text.substr(0, 14), "Item 0\nItem 1\n");
    EXPECT_EQ(snapshot.text.find("hunter2"), std::string::npos);

    // Nothing scrolled away: an empty list of regions; the page text stops at its limit.
    OutlineOptions options;
    options.textLimit = 10;
    options.title = "Notes";
    ElementFacts text;
    text.kind = Kind::staticText;
    text.value = "héllo wörld and more";
    snapshot = OutlineBuilder::build(windowOf({{text, {}, {}}}), kWindow, options);
    EXPECT_EQ(snapshot.outline, "Window \"Notes\"\n" + kScrollLine);
    EXPECT_EQ(snapshot.text, "héllo wörl");
}

TEST(Outline, CutsWholeCharactersAndQuotesAsJson) {
    EXPECT_EQ(OutlineText::cut("añb€c", 4), "añb€");
    EXPECT_EQ(OutlineText::length("añb€c"), 5u);
    EXPECT_EQ(OutlineText::cut("a\xC3", 2), "a\xC3");  // a lone lead byte is one character
    EXPECT_EQ(OutlineText::quoted("tab\there/\"q\"\\"), "\"tab\\there/\\\"q\\\"\\\\\"");
    EXPECT_EQ(OutlineText::quoted("bad \xFF byte"), "\"bad \xEF\xBF\xBD byte\"");
    EXPECT_EQ(OutlineText::label("button", std::string(100, 'x')),
              "button \"" + std::string(80, 'x') + "\"");
}

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

// The lines augment added to the base outline, which must stay as it was around them.
std::string added(const OutlineSnapshot& snapshot) {
    const auto before = base().outline;
    const auto cut = before.rfind('\n') + 1;
    const auto& after = snapshot.outline;
    EXPECT_EQ(after.substr(0, cut), before.substr(0, cut));
    EXPECT_EQ(after.substr(after.rfind('\n') + 1), kScrollLine);  // still the last line
    return after.substr(cut, after.size() - cut - kScrollLine.size());
}

TEST(VisualOutline, KeepsConfidentNewWordsAsTargetsWithTheirLines) {
    // Each line, why, and what is added for it ("" when dropped): the role, the quoted text and
    // where it shows in window points.
    const std::vector<std::tuple<const char*, RecognizedText, std::string>> cases{
        {"a word", {"Roadmap", {300, 100, 60, 12}, 90}, "text \"Roadmap\" (230,56)"},
        {"centre rounded", {"Q3", {300.4, 100.2, 20.3, 9.9}, 90}, "text \"Q3\" (211,55)"},
        {"at the threshold", {"Plan", {300, 300, 40, 12}, 60}, "text \"Plan\" (220,256)"},
        {"below the threshold", {"Plan", {300, 300, 40, 12}, 59.9}, ""},
        {"no letter or digit", {"|—|", {300, 300, 40, 12}, 95}, ""},
        {"an icon font's picture", {"\uE8B6", {300, 300, 40, 12}, 95}, ""},
        {"a word beyond ASCII", {"Über", {300, 300, 40, 12}, 95}, "text \"Über\" (220,256)"},
        {"outside the window", {"Far", {900, 300, 40, 12}, 95}, ""},
        {"the Save button's own text", {"Save", {120, 66, 30, 12}, 95}, ""},
        {"in other case and spacing", {" save ", {120, 66, 30, 12}, 95}, ""},
        {"part of the field's name", {"Nam", {115, 104, 30, 14}, 95}, ""},
        {"the same text elsewhere", {"Save", {400, 300, 30, 12}, 95}, "text \"Save\" (315,256)"},
        {"on a named button", {"Export", {115, 66, 50, 12}, 95}, "button \"Export\" (40,22)"},
        {"on an unnamed button", {"Share", {215, 68, 50, 14}, 95}, "button \"Share\" (140,25)"},
        {"in a field, not pressable", {"Ada", {115, 104, 30, 14}, 95}, "text \"Ada\" (30,61)"},
        {"quoted as JSON",
         {"Say \"hi\"", {300, 300, 40, 12}, 95},
         "text \"Say \\\"hi\\\"\" (220,256)"}};
    for (const auto& [why, line, expected] : cases) {
        auto snapshot = VisualOutline::augment(base(), {line});
        const auto where = expected.rfind(" (");
        EXPECT_EQ(added(snapshot), expected.empty()
                                       ? ""
                                       : "  [ref_4] " + expected.substr(0, where) +
                                             " visual — visible at" + expected.substr(where) +
                                             " window points\n")
            << why;
        EXPECT_EQ(snapshot.targets.size(), expected.empty() ? 3u : 4u) << why;
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

TEST(VisualOutline, PutsLinesBeforeTheClosingScrollAreasLineAndMapsFramesToTheScreen) {
    EXPECT_EQ(VisualOutline::insertLines("Window \"A\"\n" + kScrollLine, "  x\n"),
              "Window \"A\"\n  x\n" + kScrollLine);
    EXPECT_EQ(VisualOutline::insertLines(kScrollLine, "  x\n"), "  x\n" + kScrollLine);
    EXPECT_EQ(VisualOutline::insertLines("  [ref_1] button", "  x\n"), "  [ref_1] button\n  x\n");

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
    using Name = std::optional<std::string>;
    const std::vector<std::tuple<std::string, Name, bool>> cases{
        {"com.figma.Desktop", std::nullopt, true},  // ".Desktop" is no desktop-file suffix here
        {"org.inkscape.Inkscape.desktop", "Inkscape", true},
        {"", "Figma Linux", true},
        {"com.example.board", std::nullopt, true},   // the user's, any case
        {"", "Canvas Board", true},                  // the user's, by window class
        {"org.gnome.TextEditor", "Blender", false},  // the id decides
        {"", "Canvas", false},
        {"", std::nullopt, false}};
    for (const auto& [id, name, canvas] : cases) {
        EXPECT_EQ(VisualOutline::isCanvasApp(id, name, extra), canvas) << id << name.value_or("");
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
    std::vector<RecognizedText> lines{{"Roadmap", {200, 150, 60, 12}, 90}};
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
    // The outline read, or the failure's sentence.
    static std::string read(DesktopControl& control, json args = json::array()) {
        return run(control, "readPage", std::move(args));
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

const json kVisual = json::array({{{"visual", true}}});
constexpr const char* kRoadmap =
    "[ref_4] text \\\"Roadmap\\\" visual — visible at (230,156) window points";

TEST_F(VisualControl, ReadsThePictureWhenForcedOrForACanvasAppAndClicksWhereTheTextShows) {
    DesktopControl control(parts(), 4242, {}, InputPacing::none());
    EXPECT_EQ(read(control).find(" visual — "), std::string::npos);
    EXPECT_TRUE(pictures.empty());
    EXPECT_EQ(read(control, json::array({{{"visual", "yes"}}})).find(" visual — "),
              std::string::npos);
    // Picture pixels are screen points less the window's corner.
    EXPECT_NE(read(control, kVisual).find(kRoadmap), std::string::npos);
    EXPECT_EQ(recognizer.sizes.back(), (std::pair<int, int>{642, 480}));  // even, a pixel a point

    control.useCanvasApps({"org.example.board"});
    EXPECT_NE(read(control).find(kRoadmap), std::string::npos);
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
    EXPECT_EQ(read(control, kVisual), failed);
    control.useCanvasApps({"org.example.Board"});
    EXPECT_NE(read(control).find("[ref_3] textbox \\\"Name\\\" value=\\\"\\\" — visible at "
                                 "(110,62) window points\\n(" +
                                 failed + ")\\nScroll areas"),
              std::string::npos);
    accessibility.tree.reset();  // nothing on the bus, nothing in the picture
    EXPECT_EQ(read(control), failed);
    // Once the picture reads, a canvas app that shows nothing on the bus is its picture alone.
    recognizer.failure.clear();
    EXPECT_EQ(
        control.handle("readPage", json::array()),
        "  [ref_1] text \"Roadmap\" visual — visible at (230,156) window points\n" + kScrollLine);
    EXPECT_EQ(control.handle("pageText", json::array()), "Roadmap");

    // Without a recogniser.
    DesktopControl blind(parts(false), 4242, {}, InputPacing::none());
    const std::string unavailable =
        "The window's picture cannot be read: text recognition is not available here.";
    EXPECT_EQ(read(blind, kVisual), unavailable);
    EXPECT_EQ(read(blind), "The shared window cannot be read. Bring it back on screen.");
    accessibility.tree = tree();
    blind.useCanvasApps({"org.example.Board"});
    EXPECT_NE(read(blind).find("(" + unavailable + ")\\nScroll areas"), std::string::npos);
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
        "(The window's picture cannot be read: text recognition is not available here.)";
    auto noted = [&] { return call("readPage")["value"].get<std::string>().find(note); };
    EXPECT_EQ(noted(), std::string::npos);
    h.defaults.set("visualOnlyApps", std::string("org.example.Board, text-editor"));
    EXPECT_NE(noted(), std::string::npos);
    h.defaults.remove("visualOnlyApps");
    EXPECT_EQ(noted(), std::string::npos);
}

}  // namespace
}  // namespace pavix::test
