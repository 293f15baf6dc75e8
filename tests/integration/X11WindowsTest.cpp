// Shareable windows, an application's windows, the window picker and the demo window.
// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <condition_variable>
#include <fstream>
#include <mutex>

#include "IntegrationSupport.h"
#include "core/capture/CaptureError.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11Properties.h"
#include "linux/X11WindowLayers.h"
#include "linux/X11WindowPicker.h"
#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::eventually;
using test::X11TestDisplay;
using test::X11TestWindow;
using ::testing::Contains;
using ::testing::Not;
using ::testing::Optional;
using ::testing::StartsWith;

TEST(X11ShareableContent, ListsWindowsWithTitleGeometryApplicationAndDisplays) {
    X11TestDisplay display;
    test::X11TestWindowOptions options{
        .title = "Notes \u2014 caf\u00e9", .width = 640, .height = 480};
    options.instance = "gnome-notes", options.className = "Gnome-notes";
    X11TestWindow notes(display, options);
    X11TestWindow small(display, {.title = "Small", .width = 319, .height = 400});
    X11ShareableContent content("", X11DesktopEntries(std::vector<std::string>{}));
    auto snapshot = content.current();
    const auto* listed = test::listedWindow(snapshot, notes.id());
    ASSERT_NE(listed, nullptr);
    auto [x, y] = display.position(notes.id());
    EXPECT_EQ(listed->title, "Notes \u2014 caf\u00e9");
    EXPECT_EQ(std::tie(listed->x, listed->y, listed->width, listed->height),
              std::make_tuple(double(x), double(y), 640.0, 480.0));
    EXPECT_EQ(listed->pid, getpid());
    EXPECT_TRUE(listed->onScreen);
    // Without a desktop entry the application is named from its WM_CLASS.
    EXPECT_EQ(listed->appName, "Gnome Notes");
    EXPECT_EQ(listed->appId, "");
    // Stacking order, bottom first: the later window is above.
    EXPECT_LT(test::listedWindow(snapshot, notes.id()), test::listedWindow(snapshot, small.id()));
    ASSERT_EQ(snapshot.displays.size(), 1u);
    EXPECT_EQ(snapshot.displays[0].width, 1920);
    EXPECT_EQ(snapshot.displays[0].height, 1080);
    EXPECT_NE(snapshot.displays[0].id, 0u);
    // Minimised: still listed, no longer on screen. Closed: gone.
    notes.iconify();
    ASSERT_TRUE(eventually([&] { return !notes.viewable(); }));
    snapshot = content.current();
    ASSERT_NE(test::listedWindow(snapshot, notes.id()), nullptr);
    EXPECT_FALSE(test::listedWindow(snapshot, notes.id())->onScreen);
    Window closed = notes.id();
    notes.close();
    EXPECT_TRUE(
        eventually([&] { return test::listedWindow(content.current(), closed) == nullptr; }));
}

TEST(X11ShareableContent, NamesApplicationsFromTheirDesktopEntries) {
    test::ScratchFolder folder("entries");
    std::filesystem::create_directories(folder / "vendor");
    std::ofstream(folder / "org.example.Sketch.desktop")
        << "[Desktop Entry]\nName=Sketch Pad\nExec=sketchpad %U\n[Desktop Action new]\nName=New\n";
    std::ofstream(folder / "vendor/tool.desktop")
        << "[Desktop Entry]\nName=Vendor Tool\nStartupWMClass=VendorToolMain\nExec=/opt/t/tool\n";
    std::ofstream(folder / "hidden.desktop") << "[Desktop Entry]\nName=Hidden\nHidden=true\n";
    X11DesktopEntries entries({folder.path().string()});
    EXPECT_EQ(entries.find("org.example.Sketch", "", "", "")->name, "Sketch Pad");
    EXPECT_EQ(entries.find("", "main", "VendorToolMain", "")->id, "vendor-tool");
    EXPECT_EQ(entries.find("", "sketch", "Sketch", "")->name, "Sketch Pad");
    EXPECT_EQ(entries.find("", "x", "y", "/usr/bin/sketchpad")->id, "org.example.Sketch");
    EXPECT_EQ(entries.find("", "hidden", "Hidden", ""), std::nullopt);
    X11TestDisplay display;
    X11TestWindow sketch(display,
                         {.title = "Drawing 1", .instance = "sketch", .className = "Sketch"});
    auto snapshot = X11ShareableContent("", entries).current();
    const auto* listed = test::listedWindow(snapshot, sketch.id());
    ASSERT_NE(listed, nullptr);
    EXPECT_EQ(listed->appName, "Sketch Pad");
    EXPECT_EQ(listed->appId, "org.example.Sketch");
}

TEST(X11WindowLayers, ListsTheApplicationsWindowsWithTheirKinds) {
    X11TestDisplay display;
    X11TestWindow main(display, {.title = "Main", .x = 300, .y = 200, .width = 600, .height = 400});
    X11TestWindow other(display, test::otherApplication(350, 250, 400, 300, 0xff0000));
    // Same class, no pid: still the application's (a second process of it).
    X11TestWindow dialog(
        display,
        {.title = "Settings", .x = 500, .y = 300, .pid = 0, .type = "_NET_WM_WINDOW_TYPE_DIALOG"});
    // Same class, another process: a second window of the same program, not the recorded one's.
    X11TestWindow sibling(display, {.title = "Second instance", .x = 200, .y = 150, .pid = 1});
    auto [x, y] = display.position(main.id());
    X11TestWindow menu(display, test::popupMenu(x + 40, y + 30, 160, 220, 0xff0000,
                                                "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU"));
    auto tip = test::popupMenu(x + 300, y + 30, 120, 30, 0, "_NET_WM_WINDOW_TYPE_TOOLTIP");
    tip.overrideRedirect = false, tip.className = "Unrelated", tip.pid = 0;
    tip.transientFor = main.id();
    X11TestWindow tooltip(display, tip);
    X11WindowLayers layers;
    auto windows = layers.windows(static_cast<std::uint32_t>(main.id()));
    using Kind = LayerWindow::Kind;
    std::map<std::uint32_t, Kind> kinds;
    for (const auto& window : windows) {
        kinds[window.id] = window.kind;
    }
    EXPECT_EQ(kinds, (std::map<std::uint32_t, Kind>{{std::uint32_t(main.id()), Kind::window},
                                                    {std::uint32_t(dialog.id()), Kind::window},
                                                    {std::uint32_t(menu.id()), Kind::popup},
                                                    {std::uint32_t(tooltip.id()), Kind::popup}}));
    // Bottom first: the main window, then (the manager's order) the rest, the menu on top.
    ASSERT_EQ(windows.size(), 4u);
    EXPECT_EQ(windows.front().id, main.id());
    EXPECT_EQ(std::tie(windows.front().x, windows.front().y, windows.front().width,
                       windows.front().height),
              std::make_tuple(double(x), double(y), 600.0, 400.0));
    EXPECT_EQ(windows.back().id, menu.id());
    EXPECT_EQ(
        std::tie(windows.back().x, windows.back().y, windows.back().width, windows.back().height),
        std::make_tuple(double(x + 40), double(y + 30), 160.0, 220.0));
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

// What one pick ended with: "selected <id>", "canceled" or "failed: …".
struct Outcome {
    std::mutex mutex;
    std::condition_variable done;
    std::optional<std::string> result;
    WindowPickerHandlers handlers() {
        return {[this](std::uint32_t id) { finish("selected " + std::to_string(id)); },
                [this] { finish("canceled"); },
                [this](const std::string& reason) { finish("failed: " + reason); }};
    }
    void finish(std::string text) {
        std::lock_guard lock(mutex);
        result = std::move(text);
        done.notify_all();
    }
    std::optional<std::string> wait() {
        std::unique_lock lock(mutex);
        done.wait_for(lock, std::chrono::seconds(5), [&] { return result.has_value(); });
        return result;
    }
};

// Whether some client holds the pointer: a grab of our own then fails.
bool pointerGrabbed(X11TestDisplay& display) {
    if (XGrabPointer(display.get(), display.root(), False, ButtonPressMask, GrabModeAsync,
                     GrabModeAsync, None, None, CurrentTime) != GrabSuccess) {
        return true;
    }
    XUngrabPointer(display.get(), CurrentTime);
    XSync(display.get(), False);
    return false;
}

// A click picks; Escape or cancel() cancel; a second request meanwhile fails alone, and so does
// one while another client holds the pointer.
TEST(X11WindowPicker, AClickChoosesTheWindowUnderThePointerAndEscapeOrCancelCancel) {
    X11TestDisplay display;
    X11TestWindow below(display, {.title = "Below", .x = 100, .y = 100});
    X11TestWindow chosen(display, {.title = "Chosen", .x = 700, .y = 300});
    X11WindowPicker picker;
    Outcome clicked, second, escaped, canceled, held;
    picker.present(clicked.handlers());
    EXPECT_TRUE(picker.accepting());
    ASSERT_TRUE(eventually([&] { return pointerGrabbed(display); }));
    picker.present(second.handlers());
    EXPECT_EQ(second.wait(), "failed: A window is already being picked.");
    auto [x, y] = display.position(chosen.id());
    XTestFakeMotionEvent(display.get(), DefaultScreen(display.get()), x + 50, y + 40, CurrentTime);
    XTestFakeButtonEvent(display.get(), 1, True, CurrentTime);
    XTestFakeButtonEvent(display.get(), 1, False, CurrentTime);
    XSync(display.get(), False);
    EXPECT_EQ(clicked.wait(), "selected " + std::to_string(chosen.id()));
    EXPECT_FALSE(picker.accepting());
    EXPECT_TRUE(eventually([&] { return !pointerGrabbed(display); }));

    picker.present(escaped.handlers());
    ASSERT_TRUE(eventually([&] { return pointerGrabbed(display); }));
    KeyCode escape = XKeysymToKeycode(display.get(), XK_Escape);
    XTestFakeKeyEvent(display.get(), escape, True, CurrentTime);
    XTestFakeKeyEvent(display.get(), escape, False, CurrentTime);
    XSync(display.get(), False);
    EXPECT_EQ(escaped.wait(), "canceled");
    picker.present(canceled.handlers());
    ASSERT_TRUE(eventually([&] { return pointerGrabbed(display); }));
    picker.cancel();
    EXPECT_EQ(canceled.wait(), "canceled");
    EXPECT_TRUE(eventually([&] { return !pointerGrabbed(display); }));
    // Another client keeps the pointer: the pick fails at once.
    ASSERT_EQ(XGrabPointer(display.get(), display.root(), False, ButtonPressMask, GrabModeAsync,
                           GrabModeAsync, None, None, CurrentTime),
              GrabSuccess);
    XSync(display.get(), False);
    picker.present(held.handlers());
    EXPECT_THAT(held.wait(), Optional(StartsWith("failed: Another application holds the pointer")));
    XUngrabPointer(display.get(), CurrentTime);
    XSync(display.get(), False);
}

// The window's pixels as the server has them, or nothing when they cannot be read.
std::string pixels(X11Display& display, Window window, int width, int height) {
    X11ErrorTrap trap(display.get());
    XImage* image = XGetImage(display.get(), window, 0, 0, width, height, AllPlanes, ZPixmap);
    if (image == nullptr) {
        return {};
    }
    std::string bytes(image->data, std::size_t(image->bytes_per_line) * height);
    XDestroyImage(image);
    return bytes;
}

bool viewable(X11Display& display, Window window) {
    X11ErrorTrap trap(display.get());
    XWindowAttributes attributes{};
    return XGetWindowAttributes(display.get(), window, &attributes) &&
           attributes.map_state == IsViewable;
}

TEST(DemoWindow, ShowsANamedWindowWhoseContentMovesUntilSigterm) {
    const std::string title = "Pavix démo — take 1";
    ChildProcess demo({PAVIX_DEMO_WINDOW_BINARY, "--title", title, "--size", "320x200"});
    Window window = test::announcedWindow(demo, 10s);
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
    EXPECT_EQ(std::pair(attributes.width, attributes.height), std::pair(320, 200));
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

// The close button (WM_DELETE_WINDOW from the window manager) and --seconds end it cleanly; a
// bad command line gets the usage and exit status 64, and no window.
TEST(DemoWindow, EndsWhenClosedOrTimedOutAndRefusesBadArguments) {
    ChildProcess closed({PAVIX_DEMO_WINDOW_BINARY, "--size", "200x100"});
    Window window = test::announcedWindow(closed, 10s);
    X11Display display;
    ASSERT_TRUE(eventually([&] { return viewable(display, window); }));
    test::sendClientMessage(display.get(), window, window, display.atom("WM_PROTOCOLS"),
                            {long(display.atom("WM_DELETE_WINDOW"))});
    EXPECT_EQ(closed.wait(5s), 0);
    ChildProcess timed({PAVIX_DEMO_WINDOW_BINARY, "--seconds", "1", "--size", "200x100"});
    EXPECT_EQ(timed.wait(5s), 0);

    for (auto arguments : std::vector<std::vector<std::string>>{
             {"--size", "960by600"}, {"--size", "0x600"}, {"--seconds", "-3"}, {"--title"}}) {
        arguments.insert(arguments.begin(), PAVIX_DEMO_WINDOW_BINARY);
        ChildProcess demo(arguments);
        EXPECT_EQ(demo.wait(5s), 64) << arguments[1];
        const auto output = demo.output();
        EXPECT_NE(output.find("usage: pavix-demo-window"), std::string::npos) << output;
        EXPECT_THAT(demo.lines(), Not(Contains(StartsWith("window 0x"))));  // no window
    }
}

}  // namespace
}  // namespace pavix
