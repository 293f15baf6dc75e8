#include "core/capture/CaptureSources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace pavix {
namespace {

ShareableWindow window(std::uint32_t id, std::string title, double width, double height,
                       std::optional<std::string> app = "Text Editor", std::int32_t pid = 100) {
    ShareableWindow w;
    w.id = id;
    w.title = std::move(title);
    w.appName = std::move(app);
    w.appId = "org.example.Editor";
    w.pid = pid;
    w.width = width;
    w.height = height;
    w.onScreen = true;
    return w;
}

std::vector<std::string> ids(const std::vector<CaptureSource>& sources) {
    std::vector<std::string> result;
    for (const auto& source : sources) {
        result.push_back(source.id);
    }
    return result;
}

TEST(CaptureSources, ListsWindowsOfAtLeast320By200WithATitleThenDisplays) {
    ShareableContentSnapshot content;
    content.windows = {
        window(11, "Notes", 320, 200),
        window(12, "Too narrow", 319, 600),
        window(13, "Too short", 800, 199),
        window(14, "", 800, 600),
        window(15, "Huge", std::numeric_limits<double>::infinity(), 600),
        window(16, "Unknown size", std::nan(""), 600),
        window(17, "Report", 1024.6, 768.2),
    };
    content.displays = {{4242, 0, 0, 1920, 1080}, {77, 1920, 0, 1280, 1024}};

    auto sources = CaptureSources::list(content, 0);
    EXPECT_EQ(ids(sources),
              (std::vector<std::string>{"window-11", "window-17", "display-4242", "display-77"}));

    const auto& notes = sources[0];
    EXPECT_EQ(notes.title, "Text Editor \u2014 Notes");
    EXPECT_EQ(notes.filter.kind, CaptureFilter::Kind::window);
    EXPECT_EQ(notes.filter.windowID, 11u);
    EXPECT_EQ(notes.filter.appId, "org.example.Editor");
    EXPECT_EQ(notes.windowIDs, std::vector<std::uint32_t>{11});
    EXPECT_TRUE(notes.displayIDs.empty());
    EXPECT_EQ(sources[1].width, 1024);
    EXPECT_EQ(sources[1].height, 768);

    const auto& display = sources[2];
    EXPECT_EQ(display.title, "Entire display 4242 (includes other visible apps)");
    EXPECT_EQ(display.filter.kind, CaptureFilter::Kind::display);
    EXPECT_EQ(display.filter.displayID, 4242u);
    EXPECT_EQ(display.displayIDs, std::vector<std::uint32_t>{4242});
    EXPECT_TRUE(display.windowIDs.empty());
    EXPECT_EQ(display.width, 1920);
    EXPECT_EQ(display.height, 1080);
}

TEST(CaptureSources, WindowsWithoutApplicationAreTitledAppAndOwnWindowsButTheDemoAreLeftOut) {
    ShareableContentSnapshot content;
    content.windows = {window(21, "Untitled", 640, 480, std::nullopt, 5),
                       window(22, "Pavix", 900, 600, "Pavix", 999),
                       window(24, "Pavix Capture Demo", 800, 500, "Pavix", 999)};
    auto sources = CaptureSources::list(content, 999);
    ASSERT_EQ(ids(sources), (std::vector<std::string>{"window-21", "window-24"}));
    EXPECT_EQ(sources[0].title, "App \u2014 Untitled");

    // A picked window keeps the id rule but says only that it was selected; a window without a
    // title is named by the fallback.
    auto picked = CaptureSources::pickedWindowSource(window(23, "", 640, 480));
    EXPECT_EQ(picked.id, "window-23");
    EXPECT_EQ(picked.title, "Selected window");
    EXPECT_EQ(CaptureSources::windowSource(window(23, "", 640, 480)).title,
              "Text Editor \u2014 Window");
}

TEST(CaptureSources, DefaultIsTheLastTitleElseTheFirstWindowElseTheFirstDisplay) {
    ShareableContentSnapshot content;
    content.windows = {window(31, "First", 800, 600), window(32, "Second", 800, 600)};
    content.displays = {{9, 0, 0, 1920, 1080}};
    auto sources = CaptureSources::list(content, 0);

    EXPECT_EQ(CaptureSources::defaultSource(sources, "Text Editor \u2014 Second")->id, "window-32");
    EXPECT_EQ(CaptureSources::defaultSource(sources, "Gone \u2014 Window")->id, "window-31");
    EXPECT_EQ(CaptureSources::defaultSource(sources, std::nullopt)->id, "window-31");

    // Displays come after windows in the list, but a display is still found without windows.
    std::vector<CaptureSource> displaysOnly = {sources[2]};
    EXPECT_EQ(CaptureSources::defaultSource(displaysOnly, std::nullopt)->id, "display-9");
    EXPECT_EQ(CaptureSources::defaultSource({}, "x"), std::nullopt);
}

}  // namespace
}  // namespace pavix
