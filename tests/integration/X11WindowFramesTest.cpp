// Windows brought to the video sizes and back with a real window manager, and the screens.
// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11WindowFrames.h"

#include <X11/extensions/Xrandr.h>

#include <cmath>
#include <functional>
#include <limits>
#include <thread>

#include "IntegrationSupport.h"
#include "core/sizing/WindowResize.h"
#include "linux/X11Display.h"
#include "linux/X11Properties.h"
#include "support/X11TestWindow.h"

namespace pavix {

// How checks compare and print frames and screens.
static void PrintTo(const CaptureRect& r, std::ostream* out) {
    *out << "{" << r.x << ", " << r.y << ", " << r.width << ", " << r.height << "}";
}
static void PrintTo(const ScreenFrame& screen, std::ostream* out) {
    PrintTo(screen.frame, out);
    *out << " visible ";
    PrintTo(screen.visible, out);
}
static bool operator==(const ScreenFrame& a, const ScreenFrame& b) {
    return a.frame == b.frame && a.visible == b.visible;
}

namespace {

using test::eventually;
using test::X11TestDisplay;
using test::X11TestWindow;
using test::X11TestWindowOptions;
using WindowSizing::Reason;
using WindowSizing::Report;

// Whether every edge of `actual` is within `tolerance` points of `expected`.
testing::AssertionResult near(const std::optional<CaptureRect>& actual, const CaptureRect& expected,
                              double tolerance = 0) {
    if (actual && std::abs(actual->x - expected.x) <= tolerance &&
        std::abs(actual->y - expected.y) <= tolerance &&
        std::abs(actual->width - expected.width) <= tolerance &&
        std::abs(actual->height - expected.height) <= tolerance) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << testing::PrintToString(actual) << ", expected " << testing::PrintToString(expected);
}

// The report as the agent reads it, for a window whose client was brought to `size`.
nlohmann::json sizeReport(const std::string& preset, WindowSize size,
                          std::optional<Reason> reason = std::nullopt, bool resized = true) {
    return Report{
        preset, int(std::lround(size.width)), int(std::lround(size.height)), resized, reason, {}}
        .payload();
}

// The window manager's frame, measured on the frame window (the root's child) itself.
std::optional<CaptureRect> managerFrame(X11TestDisplay& display, Window window) {
    for (int depth = 0; depth < 8; ++depth) {
        Window root = None, parent = None, *children = nullptr;
        unsigned int count = 0;
        if (!XQueryTree(display.get(), window, &root, &parent, &children, &count)) {
            return std::nullopt;
        }
        if (children != nullptr) {
            XFree(children);
        }
        if (parent == root) {
            int x = 0, y = 0;
            unsigned int width = 0, height = 0, border = 0, bits = 0;
            XGetGeometry(display.get(), window, &root, &x, &y, &width, &height, &border, &bits);
            return CaptureRect{double(x), double(y), double(width + 2 * border),
                               double(height + 2 * border)};
        }
        window = parent;
    }
    return std::nullopt;
}

std::pair<int, int> clientSize(X11TestDisplay& display, Window window) {
    XWindowAttributes attributes{};
    XGetWindowAttributes(display.get(), window, &attributes);
    return {attributes.width, attributes.height};
}

bool hasState(X11Display& display, Window window, const char* state) {
    const auto states = X11Properties::items(display, window, "_NET_WM_STATE");
    return std::count(states.begin(), states.end(), display.atom(state)) > 0;
}

// Asks the window manager to add states to the window, as a user's shortcut would.
void addStates(X11TestDisplay& display, Window window, const char* first, const char* second) {
    test::sendClientMessage(
        display.get(), display.root(), window, display.atom("_NET_WM_STATE"),
        {1, long(display.atom(first)), second ? long(display.atom(second)) : 0, 2},
        SubstructureRedirectMask | SubstructureNotifyMask);
}

// RandR monitors set by hand; the first takes the screen's output and hides its monitor.
class TestMonitors {
  public:
    TestMonitors(X11TestDisplay& display, const std::vector<CaptureRect>& frames)
        : display_(display) {
        XRRScreenResources* resources = XRRGetScreenResourcesCurrent(display.get(), display.root());
        const bool any = resources != nullptr && resources->noutput > 0;
        const RROutput output = any ? resources->outputs[0] : 0;
        if (resources != nullptr) {
            XRRFreeScreenResources(resources);
        }
        if (!any) {
            throw std::runtime_error("the X server has no RandR output");
        }
        for (std::size_t i = 0; i < frames.size(); ++i) {
            XRRMonitorInfo* monitor = XRRAllocateMonitor(display.get(), i == 0 ? 1 : 0);
            monitor->name = display.atom(("PAVIX-TEST-" + std::to_string(i)).c_str());
            monitor->x = int(frames[i].x), monitor->y = int(frames[i].y);
            monitor->width = int(frames[i].width), monitor->height = int(frames[i].height);
            monitor->mwidth = monitor->width / 4, monitor->mheight = monitor->height / 4;
            if (i == 0) {
                monitor->outputs[0] = output;
            }
            XRRSetMonitor(display.get(), display.root(), monitor);
            names_.push_back(monitor->name);
            XRRFreeMonitors(monitor);
        }
        XSync(display.get(), False);
    }
    ~TestMonitors() {
        for (Atom name : names_) {
            XRRDeleteMonitor(display_.get(), display_.root(), name);
        }
        XSync(display_.get(), False);
    }

  private:
    X11TestDisplay& display_;
    std::vector<Atom> names_;
};

X11TestWindowOptions windowAt(int x, int y) {
    return {.title = "Sized window", .x = x, .y = y, .width = 400, .height = 300};
}

// Sets a cardinal property of `window` and waits until the server has it.
void setCardinals(X11TestDisplay& display, Window window, const char* name,
                  std::vector<long> values) {
    XChangeProperty(display.get(), window, display.atom(name), XA_CARDINAL, 32, PropModeReplace,
                    reinterpret_cast<unsigned char*>(values.data()), int(values.size()));
    XSync(display.get(), False);
}

// A panel: a dock window with _NET_WM_STRUT_PARTIAL (twelve values) or _NET_WM_STRUT (four).
std::unique_ptr<X11TestWindow> panel(X11TestDisplay& display, std::vector<long> strut,
                                     CaptureRect place = {0, 0, 200, 20}) {
    auto options = windowAt(int(place.x), int(place.y));
    options.title = "Panel";
    options.width = int(place.width), options.height = int(place.height);
    options.colour = 0x303030, options.type = "_NET_WM_WINDOW_TYPE_DOCK";
    auto window = std::make_unique<X11TestWindow>(display, options);
    setCardinals(display, window->id(),
                 strut.size() == 12 ? "_NET_WM_STRUT_PARTIAL" : "_NET_WM_STRUT", strut);
    return window;
}

// _NET_WORKAREA replaced for one test, as a window manager publishes it, and put back.
class TestWorkArea {
  public:
    TestWorkArea(X11TestDisplay& display, const CaptureRect& area) : display_(display) {
        X11Display reader;
        const auto saved = X11Properties::items(reader, reader.root(), "_NET_WORKAREA");
        saved_.assign(saved.begin(), saved.end());
        std::vector<long> values;  // the same area on every desktop
        for (std::size_t i = 0; i < std::max<std::size_t>(saved_.size() / 4, 1); ++i) {
            values.insert(values.end(),
                          {long(area.x), long(area.y), long(area.width), long(area.height)});
        }
        setCardinals(display, display.root(), "_NET_WORKAREA", values);
    }
    ~TestWorkArea() {
        if (saved_.empty()) {
            XDeleteProperty(display_.get(), display_.root(), display_.atom("_NET_WORKAREA"));
            XSync(display_.get(), False);
        } else {
            setCardinals(display_, display_.root(), "_NET_WORKAREA", saved_);
        }
    }

  private:
    X11TestDisplay& display_;
    std::vector<long> saved_;
};

const std::vector<ScreenFrame> kWholeScreen = {{{0, 0, 1920, 1080}, {0, 0, 1920, 1080}}};

class X11WindowFramesTest : public ::testing::Test {
  protected:
    std::optional<CaptureRect> frameOf(const X11TestWindow& window) {
        return managerFrame(display, window.id());
    }
    // The decorations' width and height around the client.
    std::pair<double, double> around(const X11TestWindow& window) {
        const auto d = frames.decorations(std::uint32_t(window.id()));
        return {d.left + d.right, d.top + d.bottom};
    }
    // Sizes `window` to `preset` as expected, looks at it (`during`), and undoes it.
    void sizeAndRestore(const X11TestWindow& window, const std::string& preset,
                        const nlohmann::json& report, const CaptureRect& frame,
                        double tolerance = 1,
                        const std::function<void(const WindowResize&)>& during = {}) {
        const auto before = frameOf(window);
        ASSERT_TRUE(before);
        auto [said, undo] = WindowResize::apply(frames, preset, std::uint32_t(window.id()));
        EXPECT_EQ(said.payload(), report);
        EXPECT_TRUE(near(frameOf(window), frame, tolerance));
        ASSERT_TRUE(undo);
        if (during) {
            during(*undo);
        }
        EXPECT_TRUE(undo->restore(frames));
        EXPECT_TRUE(near(frameOf(window), *before, 2));
    }
    X11TestDisplay display;
    X11Display server;  // for reading properties
    X11WindowFrames frames;
};

// The preset is the client's size; a fresh frame's corner is where the window asked to be.
TEST_F(X11WindowFramesTest, BringsAWindowToEachPresetAndBack) {
    ASSERT_EQ(frames.screens(), kWholeScreen);
    for (const std::string preset : {"1280x720", "1440x900", "1920x1080"}) {
        SCOPED_TRACE(preset);
        X11TestWindow window(display, windowAt(100, 100));
        const auto id = std::uint32_t(window.id());
        ASSERT_TRUE(frameOf(window));
        const auto before = *frameOf(window);
        EXPECT_EQ(before.x, 100);
        EXPECT_EQ(before.y, 100);
        EXPECT_TRUE(near(frames.frame(id), before));
        ASSERT_TRUE(frames.resizable(id));
        const auto [aroundX, aroundY] = around(window);
        EXPECT_EQ(aroundX, before.width - 400);
        EXPECT_EQ(aroundY, before.height - 300);
        // 1920x1080 and a title bar do not fit: the largest size that does, in the corner.
        const auto wanted = WindowSizing::preset(preset);
        const auto content = WindowSizing::fit(wanted, {1920 - aroundX, 1080 - aroundY});
        const bool fitted = content.width != wanted.width;
        EXPECT_EQ(fitted, preset == "1920x1080");
        const CaptureRect frame{std::min(100.0, 1920 - content.width - aroundX),
                                std::min(100.0, 1080 - content.height - aroundY),
                                content.width + aroundX, content.height + aroundY};
        sizeAndRestore(window, preset,
                       sizeReport(preset, content,
                                  fitted ? std::optional(Reason::fittedToScreen) : std::nullopt),
                       frame, 1, [&](const WindowResize& undo) {
                           EXPECT_TRUE(near(frames.frame(id), frame, 1));
                           const auto [width, height] = clientSize(display, window.id());
                           EXPECT_NEAR(width, content.width, 1);
                           EXPECT_NEAR(height, content.height, 1);
                           EXPECT_TRUE(near(undo.original, before));
                       });
        EXPECT_TRUE(near(frames.frame(id), before, 2));
        EXPECT_EQ(clientSize(display, window.id()), std::make_pair(400, 300));
    }
}

TEST_F(X11WindowFramesTest, WindowsOfOneSizeOrFullScreenAreNotResizedAndLeftAlone) {
    auto fixed = windowAt(150, 120);
    fixed.minWidth = fixed.maxWidth = 400;
    fixed.minHeight = fixed.maxHeight = 300;
    for (bool fullScreen : {false, true}) {
        SCOPED_TRACE(fullScreen ? "full screen" : "min size == max size");
        X11TestWindow window(display, fullScreen ? windowAt(150, 120) : fixed);
        const auto id = std::uint32_t(window.id());
        if (fullScreen) {
            addStates(display, window.id(), "_NET_WM_STATE_FULLSCREEN", nullptr);
            ASSERT_TRUE(eventually([&] {
                return hasState(server, window.id(), "_NET_WM_STATE_FULLSCREEN") &&
                       near(frameOf(window), {0, 0, 1920, 1080});
            }));
        }
        const auto before = frameOf(window);
        ASSERT_TRUE(before);
        EXPECT_FALSE(frames.resizable(id));
        auto [report, undo] = WindowResize::apply(frames, "1280x720", id);
        const auto [aroundX, aroundY] = around(window);  // the size said is the client's
        EXPECT_EQ(report.payload(),
                  sizeReport("1280x720", {before->width - aroundX, before->height - aroundY},
                             Reason::notResizable, false));
        EXPECT_FALSE(undo);
        EXPECT_TRUE(near(frameOf(window), *before));
        EXPECT_TRUE(near(frames.frame(id), *before));
    }
}

TEST_F(X11WindowFramesTest, AWindowThatLimitsItsSizeIsReportedAsLimitedByTheApplication) {
    // Both presets exceed the client's largest size, 1000x700; limits leave it resizable.
    for (const std::string preset : {"1280x720", "1440x900"}) {
        SCOPED_TRACE(preset);
        auto options = windowAt(100, 100);
        options.maxWidth = 1000;
        options.maxHeight = 700;
        X11TestWindow window(display, options);
        EXPECT_TRUE(frames.resizable(std::uint32_t(window.id())));
        const auto [aroundX, aroundY] = around(window);
        const auto size = WindowSizing::preset(preset);
        const WindowSize limited{std::min(1000.0, size.width), std::min(700.0, size.height)};
        sizeAndRestore(window, preset, sizeReport(preset, limited, Reason::appLimited),
                       {100, 100, limited.width + aroundX, limited.height + aroundY}, 0,
                       [&](const WindowResize&) {
                           EXPECT_EQ(clientSize(display, window.id()),
                                     std::make_pair(int(limited.width), int(limited.height)));
                       });
    }
}

// Without struts the work area counts; a panel's strut, where there is one, counts instead.
TEST_F(X11WindowFramesTest, ScreensAreTheMonitorsLessThePanelsThatReachIntoThem) {
    const CaptureRect left{0, 0, 1200, 1080}, right{1200, 0, 720, 1080}, whole{0, 0, 1920, 1080};
    struct Case {
        std::string name;
        std::vector<CaptureRect> monitors;  // none: the server's own monitor
        std::vector<std::vector<long>> struts;
        std::vector<ScreenFrame> screens;
        bool hidePanels = false;
        std::optional<CaptureRect> workArea = std::nullopt;
    };
    for (const auto& c : std::vector<Case>{
             Case("one monitor, a 30 point top panel (_NET_WM_STRUT)", {}, {{0, 0, 30, 0}},
                  {{whole, {0, 30, 1920, 1050}}}),
             Case("two monitors, a bottom panel along the left one", {left, right},
                  {{0, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1199}},
                  {{left, {0, 0, 1200, 1040}}, {right, right}}),
             Case("two monitors, a left panel and a right panel", {left, right},
                  {{50, 0, 0, 0, 0, 1079, 0, 0, 0, 0, 0, 0},
                   {0, 100, 0, 0, 0, 0, 0, 1079, 0, 0, 0, 0}},
                  {{left, {50, 0, 1150, 1080}}, {right, {1200, 0, 620, 1080}}}),
             Case("a panel at the inner edge of the right monitor covers all of the left one",
                  {left, right}, {{1230, 0, 0, 0, 0, 1079, 0, 0, 0, 0, 0, 0}},
                  {{left, left}, {right, {1230, 0, 690, 1080}}}),
             Case("a panel that is not mapped reserves nothing", {left, right},
                  {{0, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1199}}, {{left, left}, {right, right}}, true),
             Case("no strut: the work area", {}, {}, {{whole, {0, 40, 1920, 1040}}}, false,
                  CaptureRect{0, 40, 1920, 1040}),
             Case("a strut and a work area: the strut", {}, {{0, 0, 0, 25}},
                  {{whole, {0, 0, 1920, 1055}}}, false, CaptureRect{0, 40, 1920, 1040}),
         }) {
        SCOPED_TRACE(c.name);
        std::optional<TestMonitors> monitors;
        if (!c.monitors.empty()) {
            monitors.emplace(display, c.monitors);
        }
        std::optional<TestWorkArea> area;
        if (c.workArea) {
            area.emplace(display, *c.workArea);
        }
        std::vector<std::unique_ptr<X11TestWindow>> panels;
        for (const auto& strut : c.struts) {
            panels.push_back(panel(display, strut));
            if (c.hidePanels) {
                XUnmapWindow(display.get(), panels.back()->id());
                XSync(display.get(), False);
                ASSERT_TRUE(eventually([&] { return !panels.back()->viewable(); }));
            }
        }
        EXPECT_EQ(frames.screens(), c.screens);
    }
    // The window manager may still be redoing its own work area after the last panel.
    EXPECT_TRUE(eventually([&] { return frames.screens() == kWholeScreen; }));
}

// A preset is fitted to the visible part of the monitor holding more of the window.
TEST_F(X11WindowFramesTest, APresetIsFittedToTheMonitorHoldingMoreOfTheWindow) {
    const CaptureRect left{0, 0, 1200, 1040}, right{1200, 0, 720, 1080};  // visible parts
    TestMonitors monitors(display, {{0, 0, 1200, 1080}, right});
    auto bottom = panel(display, {0, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1199}, {0, 1040, 1200, 40});
    struct Case {
        int x, y;  // the frame is about 400 points wide: 300 points on one side, 100 on the other
        std::string preset;
        CaptureRect visible;
    };
    for (const auto& c : {Case{900, 500, "1920x1080", left}, Case{1100, 100, "1280x720", right}}) {
        SCOPED_TRACE(c.x);
        X11TestWindow window(display, windowAt(c.x, c.y));
        const auto placed = frameOf(window);
        ASSERT_TRUE(placed);
        EXPECT_EQ(std::pair(placed->x, placed->y), std::pair(double(c.x), double(c.y)));
        const auto [aroundX, aroundY] = around(window);
        const auto content =
            WindowSizing::fit(WindowSizing::preset(c.preset),
                              {c.visible.width - aroundX, c.visible.height - aroundY});
        const double width = content.width + aroundX, height = content.height + aroundY;
        sizeAndRestore(
            window, c.preset, sizeReport(c.preset, content, Reason::fittedToScreen),
            {c.visible.x, std::min<double>(c.y, c.visible.height - height), width, height});
    }
}

TEST_F(X11WindowFramesTest, AMaximisedWindowIsRestoredBeforeItIsSized) {
    X11TestWindow window(display, windowAt(300, 200));
    addStates(display, window.id(), "_NET_WM_STATE_MAXIMIZED_VERT", "_NET_WM_STATE_MAXIMIZED_HORZ");
    ASSERT_TRUE(eventually([&] {
        return hasState(server, window.id(), "_NET_WM_STATE_MAXIMIZED_HORZ") &&
               near(frameOf(window), {0, 0, 1920, 1080});
    }));
    EXPECT_TRUE(frames.resizable(std::uint32_t(window.id())));
    auto [report, undo] = WindowResize::apply(frames, "1280x720", std::uint32_t(window.id()));
    EXPECT_EQ(report.payload(), sizeReport("1280x720", {1280, 720}));
    const auto [aroundX, aroundY] = around(window);
    EXPECT_TRUE(near(frameOf(window), {0, 0, 1280 + aroundX, 720 + aroundY}));
    EXPECT_FALSE(hasState(server, window.id(), "_NET_WM_STATE_MAXIMIZED_VERT"));
    EXPECT_FALSE(hasState(server, window.id(), "_NET_WM_STATE_MAXIMIZED_HORZ"));
}

TEST_F(X11WindowFramesTest, AWindowTheManagerDoesNotManageIsConfiguredDirectly) {
    X11TestWindow popup(display, test::popupMenu(50, 60, 200, 100));
    const auto id = std::uint32_t(popup.id());
    EXPECT_TRUE(near(frames.frame(id), {50, 60, 200, 100}));
    EXPECT_TRUE(near(frames.setFrame(id, {300, 200, 640, 360}), {300, 200, 640, 360}));
    EXPECT_TRUE(near(frameOf(popup), {300, 200, 640, 360}));
}

// Closed, missing and nonsense windows and sizes change nothing; restoring a closed one works.
TEST_F(X11WindowFramesTest, WindowsThatDoNotExistAndSizesThatMakeNoSenseChangeNothing) {
    auto closing = std::make_unique<X11TestWindow>(display, windowAt(100, 100));
    const auto closedId = std::uint32_t(closing->id());
    auto [report, undo] = WindowResize::apply(frames, "1280x720", closedId);
    ASSERT_EQ(report.payload(), sizeReport("1280x720", {1280, 720}));
    ASSERT_TRUE(undo);
    closing.reset();
    EXPECT_TRUE(undo->restore(frames));
    const auto [gone, none] = WindowResize::apply(frames, "1280x720", closedId);
    EXPECT_FALSE(none);
    EXPECT_FALSE(gone.resized);
    // The id of a window that existed once, on this very server.
    Window destroyed = XCreateSimpleWindow(display.get(), display.root(), 0, 0, 10, 10, 0, 0, 0);
    XDestroyWindow(display.get(), destroyed);
    XSync(display.get(), False);
    for (const std::uint32_t id :
         {closedId, std::uint32_t(0), std::uint32_t(destroyed), std::uint32_t(display.root())}) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(frames.frame(id));
        EXPECT_FALSE(frames.resizable(id));
        EXPECT_FALSE(frames.setFrame(id, {0, 0, 800, 600}));
    }
    X11TestWindow window(display, windowAt(100, 100));
    const auto before = frameOf(window);
    ASSERT_TRUE(before);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const CaptureRect& wanted : std::vector<CaptureRect>{
             {100, 100, 0, 600}, {100, 100, 800, 0}, {100, 100, -800, 600}, {nan, 100, 800, 600}}) {
        SCOPED_TRACE(testing::PrintToString(wanted));
        EXPECT_TRUE(near(frames.setFrame(std::uint32_t(window.id()), wanted), *before));
        EXPECT_TRUE(near(frameOf(window), *before));
    }
}

TEST_F(X11WindowFramesTest, WindowsAreSizedFromSeveralThreadsAtOnce) {
    X11TestWindow first(display, windowAt(100, 100));
    X11TestWindow second(display, windowAt(300, 200));
    std::pair<Report, std::optional<WindowResize>> firstResult, secondResult;
    std::thread other(
        [&] { firstResult = WindowResize::apply(frames, "1280x720", std::uint32_t(first.id())); });
    secondResult = WindowResize::apply(frames, "1440x900", std::uint32_t(second.id()));
    other.join();
    EXPECT_EQ(firstResult.first.payload(), sizeReport("1280x720", {1280, 720}));
    EXPECT_EQ(secondResult.first.payload(), sizeReport("1440x900", {1440, 900}));
    const auto [aroundX, aroundY] = around(first);
    EXPECT_TRUE(near(frameOf(first), {100, 100, 1280 + aroundX, 720 + aroundY}));
    // Up from 200 to stay on the screen.
    EXPECT_TRUE(near(frameOf(second), {300, 1080 - 900 - aroundY, 1440 + aroundX, 900 + aroundY}));
}

}  // namespace
}  // namespace pavix
