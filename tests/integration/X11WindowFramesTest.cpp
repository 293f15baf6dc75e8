// Bringing windows to the standard video sizes and back on a real X server with a real window
// manager: the frames read, the screens and their usable parts, and the whole sizing driven
// through WindowResize.
//
// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11WindowFrames.h"

#include <X11/extensions/Xrandr.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "core/sizing/WindowResize.h"
#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using test::eventually;
using test::X11TestDisplay;
using test::X11TestWindow;
using test::X11TestWindowOptions;
using WindowSizing::Reason;

std::string text(const CaptureRect& r) {
    std::ostringstream out;
    out << "{" << r.x << ", " << r.y << ", " << r.width << ", " << r.height << "}";
    return out.str();
}

// Whether every edge of `actual` is within `tolerance` points of `expected`.
testing::AssertionResult near(const std::optional<CaptureRect>& actual, const CaptureRect& expected,
                              double tolerance = 0) {
    if (!actual) {
        return testing::AssertionFailure() << "no frame, expected " << text(expected);
    }
    const auto& a = *actual;
    if (std::abs(a.x - expected.x) <= tolerance && std::abs(a.y - expected.y) <= tolerance &&
        std::abs(a.width - expected.width) <= tolerance &&
        std::abs(a.height - expected.height) <= tolerance) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << text(a) << ", expected " << text(expected);
}

testing::AssertionResult sameScreens(const std::vector<ScreenFrame>& actual,
                                     const std::vector<ScreenFrame>& expected) {
    std::ostringstream listed;
    for (const auto& screen : actual) {
        listed << " [" << text(screen.frame) << " visible " << text(screen.visible) << "]";
    }
    if (actual.size() != expected.size()) {
        return testing::AssertionFailure() << actual.size() << " screens:" << listed.str();
    }
    for (std::size_t i = 0; i < actual.size(); ++i) {
        if (!(actual[i].frame == expected[i].frame && actual[i].visible == expected[i].visible)) {
            return testing::AssertionFailure()
                   << "screen " << i << " differs, expected frame " << text(expected[i].frame)
                   << " visible " << text(expected[i].visible) << "; got" << listed.str();
        }
    }
    return testing::AssertionSuccess();
}

// The report as the agent reads it.
nlohmann::json expectedReport(const std::string& requested, int width, int height, bool resized,
                              std::optional<Reason> reason) {
    nlohmann::json out = {
        {"requested", requested}, {"width", width}, {"height", height}, {"resized", resized}};
    if (reason) {
        out["reason"] = WindowSizing::reasonText(*reason);
    }
    return out;
}

// The window manager's frame around `window`, measured on the frame window itself (the child
// of the root holding the client) rather than through _NET_FRAME_EXTENTS.
std::optional<CaptureRect> managerFrame(X11TestDisplay& display, Window window) {
    Window current = window;
    for (int depth = 0; depth < 8; ++depth) {
        Window root = None, parent = None, *children = nullptr;
        unsigned int count = 0;
        if (!XQueryTree(display.get(), current, &root, &parent, &children, &count)) {
            return std::nullopt;
        }
        if (children != nullptr) {
            XFree(children);
        }
        if (parent == root) {
            Window ignored = None;
            int x = 0, y = 0;
            unsigned int width = 0, height = 0, border = 0, depth = 0;
            XGetGeometry(display.get(), current, &ignored, &x, &y, &width, &height, &border,
                         &depth);
            return CaptureRect{double(x), double(y), double(width + 2 * border),
                               double(height + 2 * border)};
        }
        current = parent;
    }
    return std::nullopt;
}

// The size of the client window inside the frame.
std::pair<int, int> clientSize(X11TestDisplay& display, Window window) {
    XWindowAttributes attributes{};
    XGetWindowAttributes(display.get(), window, &attributes);
    return {attributes.width, attributes.height};
}

std::vector<Atom> states(X11TestDisplay& display, Window window) {
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(display.get(), window, display.atom("_NET_WM_STATE"), 0, 64, False, XA_ATOM,
                       &type, &format, &count, &after, &data);
    std::vector<Atom> result;
    if (data != nullptr) {
        auto* atoms = reinterpret_cast<unsigned long*>(data);
        result.assign(atoms, atoms + count);
        XFree(data);
    }
    return result;
}

bool hasState(X11TestDisplay& display, Window window, const char* state) {
    const auto all = states(display, window);
    return std::find(all.begin(), all.end(), display.atom(state)) != all.end();
}

// Asks the window manager to add states to the window, as a user's shortcut would.
void addStates(X11TestDisplay& display, Window window, const char* first, const char* second) {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = display.atom("_NET_WM_STATE");
    event.xclient.format = 32;
    event.xclient.data.l[0] = 1;  // add
    event.xclient.data.l[1] = static_cast<long>(display.atom(first));
    event.xclient.data.l[2] = second != nullptr ? static_cast<long>(display.atom(second)) : 0;
    event.xclient.data.l[3] = 2;
    XSendEvent(display.get(), display.root(), False,
               SubstructureRedirectMask | SubstructureNotifyMask, &event);
    XSync(display.get(), False);
}

// RandR monitors set by hand on the one screen of the server, removed again at the end. The
// first takes the screen's output, which hides the server's own monitor of that output; the
// others have none.
class TestMonitors {
  public:
    TestMonitors(X11TestDisplay& display, const std::vector<CaptureRect>& frames)
        : display_(display) {
        XRRScreenResources* resources = XRRGetScreenResourcesCurrent(display.get(), display.root());
        if (resources == nullptr || resources->noutput < 1) {
            if (resources != nullptr) {
                XRRFreeScreenResources(resources);
            }
            throw std::runtime_error("the X server has no RandR output");
        }
        const RROutput output = resources->outputs[0];
        XRRFreeScreenResources(resources);
        for (std::size_t i = 0; i < frames.size(); ++i) {
            const auto name = "PAVIX-TEST-" + std::to_string(i);
            XRRMonitorInfo* monitor = XRRAllocateMonitor(display.get(), i == 0 ? 1 : 0);
            monitor->name = display.atom(name.c_str());
            monitor->x = static_cast<int>(frames[i].x);
            monitor->y = static_cast<int>(frames[i].y);
            monitor->width = static_cast<int>(frames[i].width);
            monitor->height = static_cast<int>(frames[i].height);
            monitor->mwidth = monitor->width / 4;  // about 100 dpi
            monitor->mheight = monitor->height / 4;
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
    TestMonitors(const TestMonitors&) = delete;
    TestMonitors& operator=(const TestMonitors&) = delete;

  private:
    X11TestDisplay& display_;
    std::vector<Atom> names_;
};

// A panel: a dock window with _NET_WM_STRUT_PARTIAL (twelve values) or _NET_WM_STRUT (four).
std::unique_ptr<X11TestWindow> panel(X11TestDisplay& display, std::vector<long> strut,
                                     CaptureRect place = {0, 0, 200, 20}) {
    auto window = std::make_unique<X11TestWindow>(
        display, X11TestWindowOptions{.title = "Panel",
                                      .x = int(place.x),
                                      .y = int(place.y),
                                      .width = int(place.width),
                                      .height = int(place.height),
                                      .colour = 0x303030,
                                      .type = "_NET_WM_WINDOW_TYPE_DOCK"});
    const char* property = strut.size() == 12 ? "_NET_WM_STRUT_PARTIAL" : "_NET_WM_STRUT";
    XChangeProperty(display.get(), window->id(), display.atom(property), XA_CARDINAL, 32,
                    PropModeReplace, reinterpret_cast<unsigned char*>(strut.data()),
                    static_cast<int>(strut.size()));
    XSync(display.get(), False);
    return window;
}

// _NET_WORKAREA replaced for one test, as a window manager with room of its own publishes it,
// and put back afterwards.
class TestWorkArea {
  public:
    TestWorkArea(X11TestDisplay& display, const CaptureRect& area) : display_(display) {
        Atom type = None;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char* data = nullptr;
        XGetWindowProperty(display.get(), display.root(), display.atom("_NET_WORKAREA"), 0, 1024,
                           False, XA_CARDINAL, &type, &format, &count, &after, &data);
        if (data != nullptr) {
            auto* values = reinterpret_cast<unsigned long*>(data);
            saved_.assign(values, values + count);
            XFree(data);
        }
        // The same area on every desktop.
        std::vector<long> values;
        for (std::size_t i = 0; i < std::max<std::size_t>(saved_.size() / 4, 1); ++i) {
            values.insert(values.end(),
                          {long(area.x), long(area.y), long(area.width), long(area.height)});
        }
        write(values);
    }
    ~TestWorkArea() {
        if (saved_.empty()) {
            XDeleteProperty(display_.get(), display_.root(), display_.atom("_NET_WORKAREA"));
            XSync(display_.get(), False);
        } else {
            write(saved_);
        }
    }
    TestWorkArea(const TestWorkArea&) = delete;
    TestWorkArea& operator=(const TestWorkArea&) = delete;

  private:
    void write(std::vector<long> values) {
        XChangeProperty(display_.get(), display_.root(), display_.atom("_NET_WORKAREA"),
                        XA_CARDINAL, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(values.data()),
                        static_cast<int>(values.size()));
        XSync(display_.get(), False);
    }

    X11TestDisplay& display_;
    std::vector<long> saved_;
};

X11TestWindowOptions windowAt(int x, int y) {
    return {.title = "Sized window", .x = x, .y = y, .width = 400, .height = 300};
}

// The frame of a fresh window: the window manager puts the frame's corner where the window
// asked to be (north-west gravity), at the client's size plus the decorations.
void expectPlacedAt(X11TestDisplay& display, X11WindowFrames& frames, const X11TestWindow& window,
                    double x, double y) {
    const auto outer = managerFrame(display, window.id());
    ASSERT_TRUE(outer);
    EXPECT_EQ(outer->x, x);
    EXPECT_EQ(outer->y, y);
    EXPECT_TRUE(near(frames.frame(std::uint32_t(window.id())), *outer));
}

const std::vector<ScreenFrame> kWholeScreen = {{{0, 0, 1920, 1080}, {0, 0, 1920, 1080}}};

// The preset is the size of what a recording shows, the client: the frame is that and the
// window manager's decorations.
TEST(X11WindowFrames, BringsAWindowToEachPresetAndBack) {
    X11TestDisplay display;
    X11WindowFrames frames;
    ASSERT_TRUE(sameScreens(frames.screens(), kWholeScreen));
    for (const std::string preset : {"1280x720", "1440x900", "1920x1080"}) {
        SCOPED_TRACE(preset);
        X11TestWindow window(display, windowAt(100, 100));
        const auto id = std::uint32_t(window.id());
        expectPlacedAt(display, frames, window, 100, 100);
        const auto before = managerFrame(display, window.id());
        ASSERT_TRUE(before);
        ASSERT_TRUE(frames.resizable(id));
        const double aroundX = before->width - 400, aroundY = before->height - 300;
        const auto decorations = frames.decorations(id);
        EXPECT_EQ(decorations.left + decorations.right, aroundX);
        EXPECT_EQ(decorations.top + decorations.bottom, aroundY);

        // 1920x1080 and a title bar do not fit the 1920x1080 screen: the largest size of its
        // proportions that does, in the screen's corner.
        const auto wanted = WindowSizing::preset(preset);
        const auto content = WindowSizing::fit(wanted, {1920 - aroundX, 1080 - aroundY});
        const bool fitted = content.width != wanted.width;
        const CaptureRect frame{std::min(100.0, 1920 - content.width - aroundX),
                                std::min(100.0, 1080 - content.height - aroundY),
                                content.width + aroundX, content.height + aroundY};

        auto [report, undo] = WindowResize::apply(frames, preset, id);
        EXPECT_EQ(report.payload(),
                  expectedReport(preset, int(std::lround(content.width)),
                                 int(std::lround(content.height)), true,
                                 fitted ? std::optional(Reason::fittedToScreen) : std::nullopt));
        EXPECT_TRUE(near(frames.frame(id), frame, 1));
        EXPECT_TRUE(near(managerFrame(display, window.id()), frame, 1));
        const auto [clientWidth, clientHeight] = clientSize(display, window.id());
        EXPECT_NEAR(clientWidth, content.width, 1);
        EXPECT_NEAR(clientHeight, content.height, 1);
        EXPECT_EQ(fitted, preset == "1920x1080");
        ASSERT_TRUE(undo);
        EXPECT_TRUE(near(undo->original, *before));

        EXPECT_TRUE(undo->restore(frames));
        EXPECT_TRUE(near(managerFrame(display, window.id()), *before, 2));
        EXPECT_TRUE(near(frames.frame(id), *before, 2));
        EXPECT_EQ(clientSize(display, window.id()), std::make_pair(400, 300));
    }
}

TEST(X11WindowFrames, WindowsOfOneSizeOrFullScreenAreNotResizedAndLeftAlone) {
    X11TestDisplay display;
    X11WindowFrames frames;
    struct Case {
        std::string name;
        X11TestWindowOptions options;
        const char* state;  // a state the window manager is asked for first, or none
    };
    auto fixed = windowAt(150, 120);
    fixed.minWidth = fixed.maxWidth = 400;
    fixed.minHeight = fixed.maxHeight = 300;
    for (const auto& c : std::vector<Case>{
             {"min size == max size", fixed, nullptr},
             {"full screen", windowAt(150, 120), "_NET_WM_STATE_FULLSCREEN"},
         }) {
        SCOPED_TRACE(c.name);
        X11TestWindow window(display, c.options);
        const auto id = std::uint32_t(window.id());
        if (c.state != nullptr) {
            addStates(display, window.id(), c.state, nullptr);
            ASSERT_TRUE(eventually([&] { return hasState(display, window.id(), c.state); }));
            ASSERT_TRUE(eventually([&] {
                return near(managerFrame(display, window.id()), {0, 0, 1920, 1080});
            }));
        }
        const auto before = managerFrame(display, window.id());
        ASSERT_TRUE(before);
        EXPECT_FALSE(frames.resizable(id));

        auto [report, undo] = WindowResize::apply(frames, "1280x720", id);
        const auto d = frames.decorations(id);  // the size said is the client's
        EXPECT_EQ(
            report.payload(),
            expectedReport("1280x720", int(before->width - d.left - d.right),
                           int(before->height - d.top - d.bottom), false, Reason::notResizable));
        EXPECT_FALSE(undo);
        EXPECT_TRUE(near(managerFrame(display, window.id()), *before));
        EXPECT_TRUE(near(frames.frame(id), *before));
    }
}

TEST(X11WindowFrames, AWindowThatLimitsItsSizeIsReportedAsLimitedByTheApplication) {
    X11TestDisplay display;
    X11WindowFrames frames;
    // The client takes each side of the preset up to its largest size, 1000x700: both presets
    // are over the limit.
    for (const std::string preset : {"1280x720", "1440x900"}) {
        SCOPED_TRACE(preset);
        auto options = windowAt(100, 100);
        options.maxWidth = 1000;
        options.maxHeight = 700;
        X11TestWindow window(display, options);
        const auto id = std::uint32_t(window.id());
        const auto before = managerFrame(display, window.id());
        ASSERT_TRUE(before);
        const int decorationWidth = int(before->width) - 400;
        const int decorationHeight = int(before->height) - 300;
        // Limits on the size leave it resizable.
        EXPECT_TRUE(frames.resizable(id));

        auto [report, undo] = WindowResize::apply(frames, preset, id);
        const auto size = WindowSizing::preset(preset);
        const int clientWidth = std::min(1000, int(size.width));
        const int clientHeight = std::min(700, int(size.height));
        const CaptureRect limited{100, 100, double(clientWidth + decorationWidth),
                                  double(clientHeight + decorationHeight)};
        EXPECT_EQ(report.payload(),
                  expectedReport(preset, clientWidth, clientHeight, true, Reason::appLimited));
        EXPECT_TRUE(near(managerFrame(display, window.id()), limited));
        EXPECT_EQ(clientSize(display, window.id()), std::make_pair(clientWidth, clientHeight));
        ASSERT_TRUE(undo);
        EXPECT_TRUE(undo->restore(frames));
        EXPECT_TRUE(near(managerFrame(display, window.id()), *before, 2));
    }
}

TEST(X11WindowFrames, ScreensAreTheMonitorsLessThePanelsThatReachIntoThem) {
    X11TestDisplay display;
    X11WindowFrames frames;
    const CaptureRect left{0, 0, 1200, 1080}, right{1200, 0, 720, 1080};
    const CaptureRect whole{0, 0, 1920, 1080};
    struct Case {
        std::string name;
        std::vector<CaptureRect> monitors;  // none: the server's own monitor
        std::vector<std::vector<long>> struts;
        std::vector<ScreenFrame> screens;
        bool hidePanels = false;
    };
    for (const auto& c : std::vector<Case>{
             {"one monitor, a 30 point top panel (_NET_WM_STRUT)",
              {},
              {{0, 0, 30, 0}},
              {{whole, {0, 30, 1920, 1050}}}},
             {"two monitors, a bottom panel along the left one",
              {left, right},
              {{0, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1199}},
              {{left, {0, 0, 1200, 1040}}, {right, right}}},
             {"two monitors, a left panel and a right panel",
              {left, right},
              {{50, 0, 0, 0, 0, 1079, 0, 0, 0, 0, 0, 0}, {0, 100, 0, 0, 0, 0, 0, 1079, 0, 0, 0, 0}},
              {{left, {50, 0, 1150, 1080}}, {right, {1200, 0, 620, 1080}}}},
             {"a panel at the inner edge of the right monitor covers all of the left one",
              {left, right},
              {{1230, 0, 0, 0, 0, 1079, 0, 0, 0, 0, 0, 0}},
              {{left, left}, {right, {1230, 0, 690, 1080}}}},
             {"a panel that is not mapped reserves nothing",
              {left, right},
              {{0, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1199}},
              {{left, left}, {right, right}},
              true},
         }) {
        SCOPED_TRACE(c.name);
        std::optional<TestMonitors> monitors;
        if (!c.monitors.empty()) {
            monitors.emplace(display, c.monitors);
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
        EXPECT_TRUE(sameScreens(frames.screens(), c.screens));
    }
    EXPECT_TRUE(sameScreens(frames.screens(), kWholeScreen));
}

TEST(X11WindowFrames, WithoutStrutsTheWorkAreaIsWhatTheScreenLeaves) {
    X11TestDisplay display;
    X11WindowFrames frames;
    {
        TestWorkArea area(display, {0, 40, 1920, 1040});
        EXPECT_TRUE(sameScreens(frames.screens(), {{{0, 0, 1920, 1080}, {0, 40, 1920, 1040}}}));
        // A panel's strut, where there is one, counts instead of the work area.
        auto bottom = panel(display, {0, 0, 0, 25});
        EXPECT_TRUE(sameScreens(frames.screens(), {{{0, 0, 1920, 1080}, {0, 0, 1920, 1055}}}));
    }
    EXPECT_TRUE(eventually([&] { return sameScreens(frames.screens(), kWholeScreen); }));
}

TEST(X11WindowFrames, APresetLargerThanTheVisibleScreenIsFittedToIt) {
    X11TestDisplay display;
    X11WindowFrames frames;
    // A 1440x900 monitor with a 25 point panel at its bottom: 1440x875 are left.
    TestMonitors monitors(display, {{0, 0, 1440, 900}, {1440, 0, 480, 1080}});
    auto bottom =
        panel(display, {0, 0, 0, 1080 - 900 + 25, 0, 0, 0, 0, 0, 0, 0, 1439}, {0, 875, 1440, 25});
    ASSERT_TRUE(sameScreens(frames.screens(), {{{0, 0, 1440, 900}, {0, 0, 1440, 875}},
                                               {{1440, 0, 480, 1080}, {1440, 0, 480, 1080}}}));
    X11TestWindow window(display, windowAt(100, 100));
    const auto id = std::uint32_t(window.id());
    const auto before = managerFrame(display, window.id());
    ASSERT_TRUE(before);

    // 1920x1080 scaled to the width left for the client (1440 less the borders), the title bar
    // fitting too: at the left edge, and up so that the frame ends on the panel's edge.
    const auto d = frames.decorations(id);
    const double aroundX = d.left + d.right, aroundY = d.top + d.bottom;
    const auto content = WindowSizing::fit({1920, 1080}, {1440 - aroundX, 875 - aroundY});
    EXPECT_LT(content.width, 1440);
    auto [report, undo] = WindowResize::apply(frames, "1920x1080", id);
    EXPECT_EQ(report.payload(),
              expectedReport("1920x1080", int(std::lround(content.width)),
                             int(std::lround(content.height)), true, Reason::fittedToScreen));
    const double outerHeight = content.height + aroundY;
    EXPECT_TRUE(near(managerFrame(display, window.id()),
                     {0, 875 - outerHeight, content.width + aroundX, outerHeight}, 1));
    ASSERT_TRUE(undo);
    EXPECT_TRUE(undo->restore(frames));
    EXPECT_TRUE(near(managerFrame(display, window.id()), *before, 2));
}

TEST(X11WindowFrames, AWindowAcrossTwoMonitorsIsFittedToTheOneHoldingMoreOfIt) {
    X11TestDisplay display;
    X11WindowFrames frames;
    TestMonitors monitors(display, {{0, 0, 1200, 1080}, {1200, 0, 720, 1080}});
    struct Case {
        int x;               // the frame's left edge; the frame is about 400 points wide
        double left, width;  // the monitor it is fitted to
    };
    for (const auto& c : std::vector<Case>{
             // 300 points on the left monitor, 100 on the right: fitted to the left one.
             {900, 0, 1200},
             // 100 on the left, 300 on the right: fitted to the right one, and moved onto it.
             {1100, 1200, 720},
         }) {
        SCOPED_TRACE(c.x);
        X11TestWindow window(display, windowAt(c.x, 100));
        const auto id = std::uint32_t(window.id());
        expectPlacedAt(display, frames, window, c.x, 100);
        const auto before = managerFrame(display, window.id());
        ASSERT_TRUE(before);
        const auto d = frames.decorations(id);
        const double aroundX = d.left + d.right, aroundY = d.top + d.bottom;
        const auto content = WindowSizing::fit({1280, 720}, {c.width - aroundX, 1080 - aroundY});

        auto [report, undo] = WindowResize::apply(frames, "1280x720", id);
        EXPECT_EQ(report.payload(),
                  expectedReport("1280x720", int(std::lround(content.width)),
                                 int(std::lround(content.height)), true, Reason::fittedToScreen));
        EXPECT_TRUE(near(managerFrame(display, window.id()),
                         {c.left, 100, content.width + aroundX, content.height + aroundY}, 1));
        ASSERT_TRUE(undo);
        EXPECT_TRUE(undo->restore(frames));
        EXPECT_TRUE(near(managerFrame(display, window.id()), *before, 2));
    }
}

TEST(X11WindowFrames, AMaximisedWindowIsRestoredBeforeItIsSized) {
    X11TestDisplay display;
    X11WindowFrames frames;
    X11TestWindow window(display, windowAt(300, 200));
    const auto id = std::uint32_t(window.id());
    addStates(display, window.id(), "_NET_WM_STATE_MAXIMIZED_VERT", "_NET_WM_STATE_MAXIMIZED_HORZ");
    ASSERT_TRUE(eventually([&] {
        return hasState(display, window.id(), "_NET_WM_STATE_MAXIMIZED_HORZ") &&
               near(managerFrame(display, window.id()), {0, 0, 1920, 1080});
    }));
    EXPECT_TRUE(frames.resizable(id));

    auto [report, undo] = WindowResize::apply(frames, "1280x720", id);
    EXPECT_EQ(report.payload(), expectedReport("1280x720", 1280, 720, true, {}));
    const auto d = frames.decorations(id);
    EXPECT_TRUE(near(managerFrame(display, window.id()),
                     {0, 0, 1280 + d.left + d.right, 720 + d.top + d.bottom}));
    EXPECT_FALSE(hasState(display, window.id(), "_NET_WM_STATE_MAXIMIZED_VERT"));
    EXPECT_FALSE(hasState(display, window.id(), "_NET_WM_STATE_MAXIMIZED_HORZ"));
}

TEST(X11WindowFrames, AWindowTheManagerDoesNotManageIsConfiguredDirectly) {
    X11TestDisplay display;
    X11WindowFrames frames;
    X11TestWindow popup(display, test::popupMenu(50, 60, 200, 100));
    const auto id = std::uint32_t(popup.id());
    EXPECT_TRUE(near(frames.frame(id), {50, 60, 200, 100}));
    EXPECT_TRUE(near(frames.setFrame(id, {300, 200, 640, 360}), {300, 200, 640, 360}));
    EXPECT_TRUE(near(managerFrame(display, popup.id()), {300, 200, 640, 360}));
}

TEST(X11WindowFrames, RestoringAWindowThatWasClosedMeanwhileSucceeds) {
    X11TestDisplay display;
    X11WindowFrames frames;
    X11TestWindow window(display, windowAt(100, 100));
    const auto id = std::uint32_t(window.id());
    auto [report, undo] = WindowResize::apply(frames, "1280x720", id);
    ASSERT_EQ(report.payload(), expectedReport("1280x720", 1280, 720, true, {}));
    ASSERT_TRUE(undo);
    window.close();

    EXPECT_TRUE(undo->restore(frames));
    EXPECT_FALSE(frames.frame(id));
    EXPECT_FALSE(frames.resizable(id));
    EXPECT_FALSE(frames.setFrame(id, {0, 0, 800, 600}));
    const auto [gone, none] = WindowResize::apply(frames, "1280x720", id);
    EXPECT_FALSE(none);
    EXPECT_FALSE(gone.resized);
}

TEST(X11WindowFrames, WindowsThatDoNotExistAndSizesThatMakeNoSenseChangeNothing) {
    X11TestDisplay display;
    X11WindowFrames frames;
    // The id of a window that existed once, on this very server.
    Window destroyed = XCreateSimpleWindow(display.get(), display.root(), 0, 0, 10, 10, 0, 0, 0);
    XDestroyWindow(display.get(), destroyed);
    XSync(display.get(), False);
    for (const std::uint32_t id :
         {std::uint32_t(0), std::uint32_t(destroyed), std::uint32_t(display.root())}) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(frames.frame(id));
        EXPECT_FALSE(frames.resizable(id));
        EXPECT_FALSE(frames.setFrame(id, {0, 0, 800, 600}));
    }

    X11TestWindow window(display, windowAt(100, 100));
    const auto id = std::uint32_t(window.id());
    const auto before = managerFrame(display, window.id());
    ASSERT_TRUE(before);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const CaptureRect& wanted : std::vector<CaptureRect>{
             {100, 100, 0, 600}, {100, 100, 800, 0}, {100, 100, -800, 600}, {nan, 100, 800, 600}}) {
        SCOPED_TRACE(text(wanted));
        EXPECT_TRUE(near(frames.setFrame(id, wanted), *before));
        EXPECT_TRUE(near(managerFrame(display, window.id()), *before));
    }
}

TEST(X11WindowFrames, WindowsAreSizedFromSeveralThreadsAtOnce) {
    X11TestDisplay display;
    X11WindowFrames frames;
    X11TestWindow first(display, windowAt(100, 100));
    X11TestWindow second(display, windowAt(300, 200));
    std::pair<WindowSizing::Report, std::optional<WindowResize>> firstResult, secondResult;
    std::thread other(
        [&] { firstResult = WindowResize::apply(frames, "1280x720", std::uint32_t(first.id())); });
    secondResult = WindowResize::apply(frames, "1440x900", std::uint32_t(second.id()));
    other.join();

    EXPECT_EQ(firstResult.first.payload(), expectedReport("1280x720", 1280, 720, true, {}));
    EXPECT_EQ(secondResult.first.payload(), expectedReport("1440x900", 1440, 900, true, {}));
    const auto d = frames.decorations(std::uint32_t(first.id()));
    const double aroundX = d.left + d.right, aroundY = d.top + d.bottom;
    EXPECT_TRUE(near(managerFrame(display, first.id()), {100, 100, 1280 + aroundX, 720 + aroundY}));
    // Up from 200 to stay on the screen.
    EXPECT_TRUE(near(managerFrame(display, second.id()),
                     {300, 1080 - 900 - aroundY, 1440 + aroundX, 900 + aroundY}));
}

}  // namespace
}  // namespace pavix
