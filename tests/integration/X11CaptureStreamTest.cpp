// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11CaptureStream.h"

#include <X11/extensions/XTest.h>
#include <time.h>

#include "linux/X11Display.h"
#include "linux/X11Monitors.h"
#include "support/X11FrameCollector.h"
#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using test::eventually;
using test::X11FrameCollector;
using test::X11TestDisplay;
using test::X11TestWindow;
using test::X11TestWindowOptions;

constexpr std::uint32_t red = 0xff0000, blue = 0x0000ff, green = 0x00ff00, black = 0x000000;

CaptureFilter windowFilter(Window window) {
    CaptureFilter filter;
    filter.kind = CaptureFilter::Kind::window;
    filter.windowID = static_cast<std::uint32_t>(window);
    return filter;
}

CaptureStreamConfig sized(int width, int height, bool cursor = false) {
    CaptureStreamConfig config;
    config.width = width;
    config.height = height;
    config.showsCursor = cursor;
    return config;
}

class X11CaptureStreamTest : public ::testing::Test {
  protected:
    void parkPointer(int x, int y) {
        XTestFakeMotionEvent(display.get(), DefaultScreen(display.get()), x, y, CurrentTime);
        XSync(display.get(), False);
    }

    X11TestDisplay display;
    X11FrameCollector frames;
    X11CaptureStream stream;
};

TEST_F(X11CaptureStreamTest, CoveredWindowIsCapturedWithItsOwnContent) {
    parkPointer(1900, 1060);
    X11TestWindow target(display, {.title = "Covered", .x = 200, .y = 200, .colour = red});
    stream.start(windowFilter(target.id()), sized(400, 300), frames.handlers());
    auto first = frames.nextComplete();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->width, 400);
    EXPECT_EQ(first->height, 300);
    EXPECT_EQ(first->stride, 1600);
    EXPECT_EQ(X11FrameCollector::pixel(*first, 200, 150), red);

    // Another application's window covers it completely; the capture keeps showing the window's
    // own pixels, including a change made while it is covered.
    auto [x, y] = display.position(target.id());
    X11TestWindow cover(display, {.title = "Cover",
                                  .x = x - 50,
                                  .y = y - 80,
                                  .width = 600,
                                  .height = 500,
                                  .colour = blue,
                                  .pid = 1});
    target.fillRect(0, 0, 100, 100, green);
    ASSERT_TRUE(frames.waitFor(
        [](const auto& c) { return c.complete() > 1 && c.latestPixel(10, 10) == green; }));
    auto covered = frames.lastComplete();
    EXPECT_EQ(X11FrameCollector::pixel(*covered, 200, 150), red);
    EXPECT_EQ(X11FrameCollector::pixel(*covered, 399, 299), red);

    // Time stamps come from the monotonic clock.
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::int64_t nowNs = std::int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
    EXPECT_LE(covered->captureTimeNs, nowNs);
    EXPECT_GT(covered->captureTimeNs, nowNs - 5'000'000'000);
}

// Filtered for a video and sampled for a preview alike.
TEST_F(X11CaptureStreamTest, OtherSizesAreScaledToFitOnBlack) {
    parkPointer(1900, 1060);
    X11TestWindow target(display, {.title = "Scaled", .width = 400, .height = 300, .colour = red});
    target.fillRect(200, 0, 200, 300, blue);  // the right half
    for (bool draft : {false, true}) {
        SCOPED_TRACE(draft ? "draft" : "filtered");
        // Half the size: the same picture.
        auto config = sized(200, 150);
        config.draft = draft;
        X11FrameCollector halves;
        stream.start(windowFilter(target.id()), config, halves.handlers());
        auto half = halves.nextComplete();
        stream.stop();
        ASSERT_TRUE(half);
        EXPECT_EQ(half->width, 200);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 0, 0), red);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 98, 149), red);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 101, 0), blue);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 199, 149), blue);

        // A square frame: 400×300 fits as 400×300 with 50-row bars above and below.
        config = sized(400, 400);
        config.draft = draft;
        X11FrameCollector square;
        stream.start(windowFilter(target.id()), config, square.handlers());
        auto boxed = square.nextComplete();
        stream.stop();
        ASSERT_TRUE(boxed);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 200, 10), black);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 200, 390), black);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 100, 60), red);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 0, 200), red);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 399, 200), blue);
    }
}

TEST_F(X11CaptureStreamTest, StaticWindowGivesIdleTicksAndAnimatedWindowCompleteFrames) {
    parkPointer(1900, 1060);
    X11TestWindow target(display, {.title = "Static", .colour = red});
    stream.start(windowFilter(target.id()), sized(400, 300), frames.handlers());
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.idle() >= 30; }));
    EXPECT_EQ(frames.completeCount(), 1);

    // Changing content: frames follow it.
    std::uint32_t colours[] = {green, blue, red, green, blue, red};
    int before = frames.completeCount();
    for (auto colour : colours) {
        target.fill(colour);
        ASSERT_TRUE(frames.waitFor([&](const auto& c) {
            return c.latestPixel(100, 100) == colour;
        })) << std::hex
            << colour;
    }
    EXPECT_GE(frames.completeCount() - before, 6);

    // Ticks never run faster than 60 a second.
    auto times = frames.times();
    ASSERT_GE(times.size(), 20u);
    double seconds = (times.back() - times.front()) / 1e9;
    EXPECT_LE((times.size() - 1) / seconds, 63.0);
}

TEST_F(X11CaptureStreamTest, ClosedWindowStopsTheStreamWithSourceVanished) {
    X11TestWindow target(display, {.title = "Closing"});
    stream.start(windowFilter(target.id()), sized(400, 300), frames.handlers());
    ASSERT_TRUE(frames.nextComplete());
    target.close();
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.error().has_value(); }));
    EXPECT_EQ(frames.errorCode(), CaptureError::kNoCaptureSource);
    int ticks = frames.completeCount() + frames.idleCount();
    stream.stop();
    EXPECT_EQ(frames.completeCount() + frames.idleCount(), ticks);

    // Starting on a window that does not exist is refused the same way.
    X11FrameCollector other;
    try {
        stream.start(windowFilter(target.options().x == 0 ? 1 : 0x7fffff), sized(400, 300),
                     other.handlers());
        FAIL() << "started on a missing window";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error.code(), CaptureError::kNoCaptureSource);
    }
}

TEST_F(X11CaptureStreamTest, MinimisedWindowIsReportedHiddenWithoutFrames) {
    parkPointer(1900, 1060);
    X11TestWindow target(display, {.title = "Minimised", .colour = red});
    stream.start(windowFilter(target.id()), sized(400, 300), frames.handlers());
    ASSERT_TRUE(frames.nextComplete());
    target.iconify();
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return !c.visibilityChanges().empty(); }));
    EXPECT_EQ(frames.visibility(), std::vector<bool>{false});
    int ticks = frames.completeCount() + frames.idleCount();
    ASSERT_TRUE(eventually([&] { return !target.viewable(); }));
    // Hidden: no frames of any kind for a while (there is nothing to wait on but time here).
    EXPECT_FALSE(frames.waitFor([&](const auto& c) { return c.complete() + c.idle() > ticks + 1; },
                                std::chrono::milliseconds(300)));

    target.map();
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.visibilityChanges().size() == 2; }));
    EXPECT_EQ(frames.visibility(), (std::vector<bool>{false, true}));
    auto shown = frames.nextComplete();
    ASSERT_TRUE(shown);
    EXPECT_EQ(X11FrameCollector::pixel(*shown, 200, 150), red);

    // A minimised window cannot start a capture.
    stream.stop();
    target.iconify();
    ASSERT_TRUE(eventually([&] { return !target.viewable(); }));
    X11FrameCollector other;
    try {
        stream.start(windowFilter(target.id()), sized(400, 300), other.handlers());
        FAIL() << "started on a minimised window";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error.code(), CaptureError::kFailedToStart);
    }
}

TEST_F(X11CaptureStreamTest, CursorIsDrawnInWhereThePointerIs) {
    X11TestWindow target(display, {.title = "Pointer", .colour = red});
    auto [x, y] = display.position(target.id());
    parkPointer(x + 200, y + 150);
    stream.start(windowFilter(target.id()), sized(400, 300, true), frames.handlers());
    auto frame = frames.nextComplete();
    ASSERT_TRUE(frame);
    auto differs = [](const VideoFrame& f, int left, int top) {
        int count = 0;
        for (int row = top; row < top + 16; ++row) {
            for (int column = left; column < left + 16; ++column) {
                count += X11FrameCollector::pixel(f, column, row) != red;
            }
        }
        return count;
    };
    // The cursor's image lies around its hot spot.
    EXPECT_GT(differs(*frame, 192, 142), 4);
    EXPECT_EQ(differs(*frame, 20, 20), 0);

    // Moving the pointer is a change even though the window is the same.
    parkPointer(x + 30, y + 30);
    ASSERT_TRUE(frames.waitFor([&](const auto& c) {
        return c.complete() > 0 && differs(*c.latest(), 22, 22) > 4 &&
               differs(*c.latest(), 192, 142) == 0;
    }));
    stream.stop();

    X11FrameCollector without;
    stream.start(windowFilter(target.id()), sized(400, 300, false), without.handlers());
    auto plain = without.nextComplete();
    ASSERT_TRUE(plain);
    EXPECT_EQ(differs(*plain, 22, 22), 0);
}

TEST_F(X11CaptureStreamTest, DisplayCaptureShowsTheScreen) {
    parkPointer(1900, 1060);
    X11Display connection;
    auto monitors = X11Monitors::list(connection);
    ASSERT_FALSE(monitors.empty());
    X11TestWindow target(display, {.title = "On screen", .colour = green});
    auto [x, y] = display.position(target.id());

    CaptureFilter filter;
    filter.kind = CaptureFilter::Kind::display;
    filter.displayID = monitors[0].id;
    stream.start(filter, sized(int(monitors[0].width), int(monitors[0].height)), frames.handlers());
    auto frame = frames.nextComplete();
    ASSERT_TRUE(frame);
    EXPECT_EQ(X11FrameCollector::pixel(*frame, x + 200, y + 150), green);
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.idle() >= 5; }));
    target.fill(blue);
    ASSERT_TRUE(
        frames.waitFor([&](const auto& c) { return c.latestPixel(x + 200, y + 150) == blue; }));
    stream.stop();

    CaptureFilter missing = filter;
    missing.displayID = 0x7ffffff;
    try {
        stream.start(missing, sized(640, 480), frames.handlers());
        FAIL() << "started on a missing display";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error.code(), CaptureError::kNoCaptureSource);
    }
}

TEST_F(X11CaptureStreamTest, ApplicationRegionShowsOnlyTheApplicationsWindows) {
    parkPointer(1900, 1060);
    X11TestWindow target(display, {.title = "Editor", .x = 400, .y = 300, .colour = red});
    auto [x, y] = display.position(target.id());
    CaptureFilter filter = windowFilter(target.id());
    filter.kind = CaptureFilter::Kind::applicationRegion;
    CaptureStreamConfig config = sized(800, 700);
    config.sourceRect = CaptureRect{double(x - 200), double(y - 200), 800, 700};
    stream.start(filter, config, frames.handlers());
    auto frame = frames.nextComplete();
    ASSERT_TRUE(frame);
    EXPECT_EQ(X11FrameCollector::pixel(*frame, 400, 350), red);
    EXPECT_EQ(X11FrameCollector::pixel(*frame, 5, 5), black);  // the desktop is not recorded

    // Another application's window on top is left out; the application's own pop-up is shown.
    X11TestWindow stranger(display, {.title = "Stranger",
                                     .x = x + 100,
                                     .y = y + 100,
                                     .width = 150,
                                     .height = 100,
                                     .colour = blue,
                                     .instance = "other",
                                     .className = "Other",
                                     .pid = 1});
    X11TestWindow popup(display, {.title = "",
                                  .x = x + 250,
                                  .y = y + 50,
                                  .width = 120,
                                  .height = 80,
                                  .colour = green,
                                  .overrideRedirect = true,
                                  .type = "_NET_WM_WINDOW_TYPE_POPUP_MENU"});
    ASSERT_TRUE(frames.waitFor(
        [&](const auto& c) { return c.latestPixel(200 + 250 + 60, 200 + 50 + 40) == green; }));
    EXPECT_EQ(X11FrameCollector::pixel(*frames.lastComplete(), 200 + 100 + 75, 200 + 100 + 50),
              red);

    // A moving window keeps producing frames, showing it at its new place.
    popup.close();
    int before = frames.completeCount();
    for (int step = 1; step <= 5; ++step) {
        target.moveTo(x + 20 * step, y);
        int left = 200 + 20 * step;
        ASSERT_TRUE(frames.waitFor([&](const auto& c) {
            return c.latestPixel(left + 2, 350) == red && c.latestPixel(left - 3, 350) == black;
        })) << "step "
            << step;
    }
    EXPECT_GE(frames.completeCount() - before, 5);
}

}  // namespace
}  // namespace pavix
