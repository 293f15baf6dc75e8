// The outline of a window's accessible tree: the exact shape of each kind of line, where an
// element is said to be, the limits of a read, the scroll areas and what is never shown.
#include <gtest/gtest.h>

#include "core/control/OutlineBuilder.h"
#include "core/control/OutlineText.h"

namespace pavix::test {
namespace {

using Kind = ElementFacts::Kind;

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
    EXPECT_EQ(snapshot.outline,
              "Window \"Notes\"\nScroll areas (layout only; offscreen content is not visual "
              "proof): {\"regions\":[]}");
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

}  // namespace
}  // namespace pavix::test
