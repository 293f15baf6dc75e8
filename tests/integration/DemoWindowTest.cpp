// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>

#include "linux/X11Display.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"
#include "support/ChildProcess.h"
#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::eventually;

// The window id from the "window 0x…" line the program prints once its window exists.
Window announcedWindow(ChildProcess& demo) {
    auto line = demo.waitForLine("window 0x", 10s);
    if (!line) {
        ADD_FAILURE() << "no window announced:\n" << demo.output();
        return None;
    }
    return static_cast<Window>(std::stoul(line->substr(line->find("0x")), nullptr, 16));
}

bool viewable(X11Display& display, Window window) {
    X11ErrorTrap trap(display.get());
    XWindowAttributes attributes{};
    return XGetWindowAttributes(display.get(), window, &attributes) &&
           attributes.map_state == IsViewable;
}

// The window's pixels as the server has them, or nothing when they cannot be read.
std::string pixels(X11Display& display, Window window, int width, int height) {
    X11ErrorTrap trap(display.get());
    XImage* image = XGetImage(display.get(), window, 0, 0, width, height, AllPlanes, ZPixmap);
    if (image == nullptr) {
        return {};
    }
    std::string bytes(image->data, static_cast<std::size_t>(image->bytes_per_line) * height);
    XDestroyImage(image);
    return bytes;
}

TEST(DemoWindow, ShowsANamedWindowWhoseContentMovesUntilSigterm) {
    const std::string title = "Pavix démo — take 1";
    ChildProcess demo({PAVIX_DEMO_WINDOW_BINARY, "--title", title, "--size", "320x200"});
    Window window = announcedWindow(demo);
    ASSERT_NE(window, None);

    X11Display display;
    ASSERT_TRUE(eventually([&] { return viewable(display, window); }));
    EXPECT_EQ(X11Properties::utf8(display, window, "_NET_WM_NAME"), title);
    EXPECT_EQ(X11Properties::text(display, window, XA_WM_NAME), title);
    EXPECT_EQ(X11Properties::wmClass(display, window),
              std::make_pair(std::string("pavix-demo-window"), std::string("Pavix Demo")));
    EXPECT_EQ(X11Properties::cardinal(display, window, "_NET_WM_PID"),
              static_cast<unsigned long>(demo.pid()));
    EXPECT_TRUE(X11Properties::has(display, window, "WM_CLIENT_MACHINE"));
    auto protocols = X11Properties::items(display, window, "WM_PROTOCOLS");
    EXPECT_NE(std::find(protocols.begin(), protocols.end(), display.atom("WM_DELETE_WINDOW")),
              protocols.end());
    XWindowAttributes attributes{};
    ASSERT_TRUE(XGetWindowAttributes(display.get(), window, &attributes));
    EXPECT_EQ(attributes.width, 320);
    EXPECT_EQ(attributes.height, 200);

    auto first = pixels(display, window, 320, 200);
    ASSERT_FALSE(first.empty());
    EXPECT_TRUE(eventually([&] {
        auto later = pixels(display, window, 320, 200);
        return !later.empty() && later != first;
    }));

    demo.signal(SIGTERM);
    EXPECT_EQ(demo.wait(5s), 0);
    // The announcement is all it prints.
    char announcement[40];
    std::snprintf(announcement, sizeof announcement, "window 0x%lx", window);
    EXPECT_EQ(demo.lines(), std::vector<std::string>{announcement});
}

TEST(DemoWindow, EndsWhenTheWindowManagerClosesItOrTheTimeIsUp) {
    ChildProcess closed({PAVIX_DEMO_WINDOW_BINARY, "--size", "200x100"});
    Window window = announcedWindow(closed);
    ASSERT_NE(window, None);
    X11Display display;
    ASSERT_TRUE(eventually([&] { return viewable(display, window); }));
    // What a window manager sends when the user clicks the close button.
    XEvent close{};
    close.xclient.type = ClientMessage;
    close.xclient.window = window;
    close.xclient.message_type = display.atom("WM_PROTOCOLS");
    close.xclient.format = 32;
    close.xclient.data.l[0] = static_cast<long>(display.atom("WM_DELETE_WINDOW"));
    close.xclient.data.l[1] = CurrentTime;
    XSendEvent(display.get(), window, False, NoEventMask, &close);
    XSync(display.get(), False);
    EXPECT_EQ(closed.wait(5s), 0);

    ChildProcess timed({PAVIX_DEMO_WINDOW_BINARY, "--seconds", "1", "--size", "200x100"});
    ASSERT_NE(announcedWindow(timed), None);
    EXPECT_EQ(timed.wait(5s), 0);
}

TEST(DemoWindow, RefusesBadArgumentsWithItsUsage) {
    for (auto arguments : std::vector<std::vector<std::string>>{{"--size", "960by600"},
                                                                {"--size", "0x600"},
                                                                {"--seconds", "-3"},
                                                                {"--title"},
                                                                {"--colour", "red"}}) {
        arguments.insert(arguments.begin(), PAVIX_DEMO_WINDOW_BINARY);
        ChildProcess demo(arguments);
        EXPECT_EQ(demo.wait(5s), 64) << arguments[1];
        EXPECT_NE(demo.output().find("usage: pavix-demo-window"), std::string::npos)
            << demo.output();
        auto lines = demo.lines();
        EXPECT_TRUE(std::none_of(lines.begin(), lines.end(), [](const std::string& line) {
            return line.rfind("window 0x", 0) == 0;
        })) << demo.output();
    }
}

}  // namespace
}  // namespace pavix
