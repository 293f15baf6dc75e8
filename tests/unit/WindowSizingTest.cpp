// The window sizes a shared window is brought to: presets, fitting on a screen, where the window
// goes, which screen holds it, and what the agent is told.
#include <gtest/gtest.h>

#include <array>

#include "core/sizing/WindowResize.h"
#include "core/sizing/WindowSizing.h"
#include "support/FakeWindowFrames.h"

namespace pavix::test {
namespace {

using namespace WindowSizing;

TEST(WindowSizingRules, PresetsFitOnTheScreenWithTheirProportions) {
    EXPECT_EQ(preset("1280x720"), (WindowSize{1280, 720}));
    EXPECT_EQ(preset("1440x900"), (WindowSize{1440, 900}));
    EXPECT_EQ(preset("4k"), (WindowSize{1920, 1080}));
    // A size, the room available and the size fitted into it.
    for (const auto& [size, available, fitted] : std::vector<std::array<WindowSize, 3>>{
             {{{1920, 1080}, {1440, 875}, {1440, 810}}},    // scale 0.75
             {{{1920, 1080}, {2560, 1400}, {1920, 1080}}},  // never enlarged
             {{{1440, 900}, {1366, 705}, {1128, 705}}},     // the height decides, floored
             {{{1920, 1080}, {0, 875}, {1920, 1080}}}}) {   // nothing to fit in
        EXPECT_EQ(fit(size, available), fitted) << available.width;
    }
}

TEST(WindowSizingRules, TheWindowKeepsItsCornerWhereItFitsAndStaysOnTheVisibleFrame) {
    const CaptureRect visible{0, 27, 1920, 1053};
    // The window's frame, the size it takes and where it is placed.
    for (const auto& [frame, size, placed] :
         std::vector<std::tuple<CaptureRect, WindowSize, CaptureRect>>{
             {{100, 100, 800, 600}, {1280, 720}, {100, 100, 1280, 720}},
             {{900, 500, 800, 600}, {1280, 720}, {640, 360, 1280, 720}},  // pushed left and up
             {{-50, 10, 800, 600}, {1280, 720}, {0, 27, 1280, 720}},      // back on the frame
             {{300, 300, 800, 600}, {2000, 1200}, {0, 27, 2000, 1200}},   // larger: the corner
             {{100.4, 99.6, 800, 600}, {1280, 720}, {100, 100, 1280, 720}}}) {
        EXPECT_EQ(origin(size, frame, visible), placed) << frame.x << "," << frame.y;
    }
}

// The reasons follow from the sizes before and after, as the windows brought to a preset below
// show; the payload rounds the size and says what was put back.
TEST(WindowSizingRules, TheReportsPayloadRoundsTheSizeAndSaysWhy) {
    const WindowSize full{1920, 1080};
    auto r = report("huge", full, full, {800, 600}, {1600.4, 999.6});
    r.restored = true;
    EXPECT_EQ(r.payload(), nlohmann::json::parse(R"({"requested":"huge","width":1600,"height":1000,
        "resized":true,"reason":"app_limited","restored":true})"));
    EXPECT_EQ((Report{"1280x720", 800, 600, false, Reason::controlOff, {}}).payload(),
              nlohmann::json::parse(R"({"requested":"1280x720","width":800,"height":600,
        "resized":false,"reason":"control_off"})"));
}

TEST(WindowSizingRules, TheScreenThatHoldsMoreOfTheWindowIsChosen) {
    const std::vector<ScreenFrame> screens = {
        {{0, 0, 1920, 1080}, {0, 27, 1920, 1053}},
        {{1920, 0, 1440, 900}, {1920, 0, 1440, 875}},
    };
    struct Case {
        CaptureRect window;
        std::optional<double> screenX;
    };
    for (const auto& c : std::vector<Case>{
             {{100, 100, 800, 600}, 0},
             {{1700, 100, 800, 600}, 1920},  // more of it on the second
             {{1520, 100, 800, 600}, 0},     // an equal split: the first
             {{4000, 100, 800, 600}, std::nullopt},
             {{100, 0, 800, 20}, std::nullopt},  // only on the first screen's top panel
         }) {
        auto screen = screenOf(c.window, screens);
        EXPECT_EQ(screen ? std::optional(screen->frame.x) : std::nullopt, c.screenX) << c.window.x;
    }
}

// A window brought to a preset on the screen that holds it, and put back; the windows that
// cannot be sized are left as they are and the report says why.
TEST(WindowSizingRules, AWindowIsBroughtToAPresetAndPutBack) {
    FakeWindowFrames frames;
    const std::vector<ScreenFrame> screens = {
        {{0, 0, 1920, 1080}, {0, 0, 1920, 1080}},
        {{1920, 0, 1440, 900}, {1920, 0, 1440, 875}},
    };
    FakeWindowFrames::Window fixed{{100, 100, 640, 480}, false};
    FakeWindowFrames::Window limited{{100, 100, 640, 480}, true, {1000, 700}};
    frames.set(screens, {{1, {{900, 500, 640, 480}}},
                         {2, fixed},
                         {3, limited},
                         {4, {{2000, 100, 800, 600}}},
                         {5, {{100, 100, 1921, 1079}}},
                         {6, {{5000, 100, 800, 600}}},
                         {7, {{100, 100, 642, 506}, true, {1e9, 1e9}, {1, 25, 1, 1}}},
                         {8, {{0, 0, 800, 600}, true, {1e9, 1e9}, {0, 30, 0, 0}}}});
    struct Case {
        std::uint32_t window;
        std::string preset;
        std::string payload;
        std::optional<CaptureRect> after;
    };
    for (
        const auto& c : std::vector<Case>{
            {1, "1280x720", R"({"height":720,"requested":"1280x720","resized":true,"width":1280})",
             CaptureRect{640, 360, 1280, 720}},  // pushed up and left
            {2, "1920x1080",
             R"({"height":480,"reason":"not_resizable","requested":"1920x1080","resized":false,"width":640})",
             CaptureRect{100, 100, 640, 480}},
            {3, "1440x900",
             R"({"height":700,"reason":"app_limited","requested":"1440x900","resized":true,"width":1000})",
             std::nullopt},
            {4, "wide",  // an unknown name is the default, on the smaller screen
             R"({"height":810,"reason":"fitted_to_screen","requested":"wide","resized":true,"width":1440})",
             CaptureRect{1920, 65, 1440, 810}},
            {5, "1920x1080",  // close enough already: untouched
             R"({"height":1079,"requested":"1920x1080","resized":false,"width":1921})",
             std::nullopt},
            {6, "1920x1080",  // on no screen
             R"({"height":600,"reason":"not_resizable","requested":"1920x1080","resized":false,"width":800})",
             std::nullopt},
            // A recording leaves the title bar and borders out: the content takes the preset.
            {7, "1280x720", R"({"height":720,"requested":"1280x720","resized":true,"width":1280})",
             CaptureRect{100, 100, 1282, 746}},
            {8, "1920x1080",  // with its title bar the preset no longer fits the screen
             R"({"height":1050,"reason":"fitted_to_screen","requested":"1920x1080","resized":true,"width":1866})",
             std::nullopt},
        }) {
        auto before = *frames.frame(c.window);
        auto [report, undo] = WindowResize::apply(frames, c.preset, c.window);
        EXPECT_EQ(report.payload().dump(), c.payload) << c.window;
        if (c.after) {
            EXPECT_EQ(*frames.frame(c.window), *c.after) << c.window;
        }
        EXPECT_EQ(undo.has_value(), report.resized) << c.window;
        if (undo) {
            EXPECT_TRUE(undo->restore(frames));
            EXPECT_EQ(*frames.frame(c.window), before) << c.window;
        }
    }
    // A window that was closed meanwhile counts as put back.
    auto [report, undo] = WindowResize::apply(frames, "1280x720", 1);
    ASSERT_TRUE(undo);
    frames.close(1);
    EXPECT_TRUE(undo->restore(frames));
}

}  // namespace
}  // namespace pavix::test
