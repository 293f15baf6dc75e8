// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11WindowLayers.h"

#include <chrono>
#include <cmath>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "core/capture/CaptureError.h"
#include "core/capture/CaptureLayers.h"
#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using test::eventually;
using test::X11TestDisplay;
using test::X11TestWindow;

TEST(X11WindowLayers, ListsTheApplicationsWindowsWithTheirKinds) {
    X11TestDisplay display;
    X11TestWindow main(display, {.title = "Main", .x = 300, .y = 200, .width = 600, .height = 400});
    X11TestWindow other(display, {.title = "Other app",
                                  .x = 350,
                                  .y = 250,
                                  .instance = "other",
                                  .className = "Other",
                                  .pid = 1});
    // Same class, no pid: still the application's (a second process of it).
    X11TestWindow dialog(display, {.title = "Settings",
                                   .x = 500,
                                   .y = 300,
                                   .width = 300,
                                   .height = 200,
                                   .pid = 0,
                                   .type = "_NET_WM_WINDOW_TYPE_DIALOG"});
    auto [x, y] = display.position(main.id());
    X11TestWindow menu(display, {.title = "",
                                 .x = x + 40,
                                 .y = y + 30,
                                 .width = 160,
                                 .height = 220,
                                 .overrideRedirect = true,
                                 .type = "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU"});
    X11TestWindow tooltip(display, {.title = "",
                                    .x = x + 300,
                                    .y = y + 30,
                                    .width = 120,
                                    .height = 30,
                                    .className = "Unrelated",
                                    .pid = 0,
                                    .type = "_NET_WM_WINDOW_TYPE_TOOLTIP",
                                    .transientFor = main.id()});

    X11WindowLayers layers;
    auto windows = layers.windows(static_cast<std::uint32_t>(main.id()));
    using Kind = LayerWindow::Kind;
    std::map<std::uint32_t, LayerWindow> seen;
    for (const auto& window : windows) {
        seen[window.id] = window;
    }
    std::map<std::uint32_t, Kind> kinds;
    for (const auto& [id, window] : seen) {
        kinds[id] = window.kind;
    }
    EXPECT_EQ(kinds, (std::map<std::uint32_t, Kind>{
                         {std::uint32_t(main.id()), Kind::window},
                         {std::uint32_t(dialog.id()), Kind::window},
                         {std::uint32_t(menu.id()), Kind::popup},
                         {std::uint32_t(tooltip.id()), Kind::popup},
                     }));
    // Bottom first: the main window under everything, the menu (placed without the window
    // manager, after the others) on top. The manager keeps transients next to their parent, so
    // the others' order is its own business.
    ASSERT_EQ(windows.size(), 4u);
    EXPECT_EQ(windows.front().id, main.id());
    EXPECT_EQ(windows.back().id, menu.id());
    const auto& listedMain = seen[std::uint32_t(main.id())];
    EXPECT_EQ(listedMain.x, x);
    EXPECT_EQ(listedMain.y, y);
    EXPECT_EQ(listedMain.width, 600);
    EXPECT_EQ(listedMain.height, 400);
    const auto& listedMenu = seen[std::uint32_t(menu.id())];
    EXPECT_EQ(listedMenu.x, x + 40);
    EXPECT_EQ(listedMenu.y, y + 30);
    EXPECT_EQ(listedMenu.width, 160);
    EXPECT_EQ(listedMenu.height, 220);

    // Moving a window is seen at the next read.
    main.moveTo(x + 100, y);
    ASSERT_TRUE(eventually([&] {
        auto [movedX, movedY] = display.position(main.id());
        auto front = layers.windows(std::uint32_t(main.id())).front();
        return movedX > x + 50 && front.x == movedX && front.y == movedY;
    }));

    Window closed = main.id();
    main.close();
    EXPECT_TRUE(eventually([&] {
        try {
            layers.windows(std::uint32_t(closed));
            return false;
        } catch (const CaptureError& error) {
            return error.code() == CaptureError::kNoCaptureSource;
        }
    }));
}

// Samples like the recording does, every 33 ms, while a menu opens and closes.
TEST(X11WindowLayers, APopupOpenedWhileSamplingAppearsAndDisappearsInTheTrack) {
    X11TestDisplay display;
    X11TestWindow main(display, {.title = "Main", .x = 500, .y = 300, .width = 600, .height = 400});
    auto [x, y] = display.position(main.id());
    CaptureRect frame{double(x), double(y), 600, 400};
    CaptureRect region = CaptureLayers::region(frame, {0, 0, 1920, 1080});
    X11WindowLayers layers;
    CaptureLayers track;
    auto started = std::chrono::steady_clock::now();
    auto sample = [&] {
        auto at = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - started)
                      .count();
        auto windows = CaptureLayers::sampled(layers.windows(std::uint32_t(main.id())));
        track.note(at, CaptureLayers::rects(windows, region));
    };
    auto sampleUntil = [&](const std::function<bool()>& condition) {
        for (int tick = 0; tick < 150; ++tick) {
            sample();
            if (condition()) {
                return true;
            }
            std::this_thread::sleep_for(
                std::chrono::milliseconds(CaptureLayers::samplingIntervalMs));
        }
        return false;
    };
    auto last = [&] { return track.samples.back().rects; };

    sample();
    ASSERT_EQ(track.samples.size(), 1u);
    ASSERT_EQ(last().size(), 1u);
    EXPECT_EQ(last()[0].kind, "window");
    EXPECT_EQ(last()[0].x, std::round((x - region.x) / region.width * 10000) / 10000);

    std::optional<X11TestWindow> menu;
    menu.emplace(display, test::X11TestWindowOptions{.title = "",
                                                     .x = x + 20,
                                                     .y = y + 380,
                                                     .width = 200,
                                                     .height = 150,
                                                     .overrideRedirect = true,
                                                     .type = "_NET_WM_WINDOW_TYPE_POPUP_MENU"});
    ASSERT_TRUE(sampleUntil([&] { return last().size() == 2; }));
    EXPECT_EQ(last()[1].kind, "popup");
    EXPECT_EQ(last()[1].radius, std::round(12 / region.width * 10000) / 10000);
    auto opened = track.samples.back().atMs;

    menu.reset();
    ASSERT_TRUE(sampleUntil([&] { return last().size() == 1; }));
    const auto& closed = track.samples.back();
    EXPECT_EQ(closed.rects[0].kind, "window");
    // Dated one interval before it was seen, never before the sample that showed the menu.
    EXPECT_GE(closed.atMs, opened);
    EXPECT_EQ(track.samples.size(), 3u);
}

}  // namespace
}  // namespace pavix
