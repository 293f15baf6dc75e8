// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11WindowLayers.h"

#include <map>

#include "core/capture/CaptureError.h"
#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using test::eventually;
using test::X11TestDisplay;
using test::X11TestWindow;

TEST(X11WindowLayers, ListsTheApplicationsWindowsWithTheirKinds) {
    X11TestDisplay display;
    X11TestWindow main(display, {.title = "Main", .x = 300, .y = 200, .width = 600, .height = 400});
    X11TestWindow other(display, test::otherApplication(350, 250, 400, 300, 0xff0000));
    // Same class, no pid: still the application's (a second process of it).
    X11TestWindow dialog(display, {.title = "Settings",
                                   .x = 500,
                                   .y = 300,
                                   .width = 300,
                                   .height = 200,
                                   .pid = 0,
                                   .type = "_NET_WM_WINDOW_TYPE_DIALOG"});
    // Same class, another process: a second window of the same program (another terminal),
    // not the recorded one's.
    X11TestWindow sibling(
        display,
        {.title = "Second instance", .x = 200, .y = 150, .width = 300, .height = 200, .pid = 1});
    auto [x, y] = display.position(main.id());
    X11TestWindow menu(display, test::popupMenu(x + 40, y + 30, 160, 220, 0xff0000,
                                                "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU"));
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

}  // namespace
}  // namespace pavix
