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

// The pointer waits in a corner, away from the windows, unless a test moves it.
class X11CaptureStreamTest : public ::testing::Test {
  protected:
    X11CaptureStreamTest() { parkPointer(1900, 1060); }
    void parkPointer(int x, int y) {
        XTestFakeMotionEvent(display.get(), DefaultScreen(display.get()), x, y, CurrentTime);
        XSync(display.get(), False);
    }
    // The first complete frame of a stream started for it alone.
    std::optional<VideoFrame> firstFrame(const CaptureFilter& filter,
                                         const CaptureStreamConfig& config) {
        X11FrameCollector collector;
        stream.start(filter, config, collector.handlers());
        auto frame = collector.nextComplete();
        stream.stop();
        return frame;
    }
    // The code a start that must be refused fails with.
    std::optional<int> refusal(const CaptureFilter& filter) {
        X11FrameCollector collector;
        try {
            stream.start(filter, sized(400, 300), collector.handlers());
        } catch (const CaptureError& error) {
            return error.code();
        }
        stream.stop();
        return std::nullopt;
    }

    X11TestDisplay display;
    X11FrameCollector frames;
    X11CaptureStream stream;
};

TEST_F(X11CaptureStreamTest, CoveredWindowIsCapturedWithItsOwnContent) {
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
    X11TestWindow cover(display, test::otherApplication(x - 50, y - 80, 600, 500, blue));
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
    X11TestWindow target(display, {.title = "Scaled", .width = 400, .height = 300, .colour = red});
    target.fillRect(200, 0, 200, 300, blue);  // the right half
    for (bool draft : {false, true}) {
        SCOPED_TRACE(draft ? "draft" : "filtered");
        // Half the size: the same picture.
        auto config = sized(200, 150);
        config.draft = draft;
        auto half = firstFrame(windowFilter(target.id()), config);
        ASSERT_TRUE(half);
        EXPECT_EQ(half->width, 200);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 0, 0), red);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 98, 149), red);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 101, 0), blue);
        EXPECT_EQ(X11FrameCollector::pixel(*half, 199, 149), blue);

        // A square frame: 400×300 fits as 400×300 with 50-row bars above and below.
        config = sized(400, 400);
        config.draft = draft;
        auto boxed = firstFrame(windowFilter(target.id()), config);
        ASSERT_TRUE(boxed);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 200, 10), black);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 200, 390), black);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 100, 60), red);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 0, 200), red);
        EXPECT_EQ(X11FrameCollector::pixel(*boxed, 399, 200), blue);
    }
}

// A recording's frames come in the encoder's 4:2:0, BT.709 limited range, whether the picture
// had the frame's size, was reduced to it, or was fitted into it on black.
TEST_F(X11CaptureStreamTest, RecordingFramesComeInTheEncodersLayout) {
    X11TestWindow target(display, {.title = "Planar", .width = 400, .height = 300, .colour = red});
    target.fillRect(200, 0, 200, 300, blue);  // the right half
    using Yuv = std::array<int, 3>;
    const Yuv redYuv{63, 102, 240}, blueYuv{32, 240, 118}, blackYuv{16, 128, 128};
    struct Case {
        int width, height;
        std::vector<std::tuple<int, int, Yuv>> samples;  // x, y, expected
    };
    const Case cases[] = {
        {400, 300, {{100, 150, redYuv}, {300, 150, blueYuv}}},
        {200, 150, {{50, 75, redYuv}, {150, 75, blueYuv}}},
        // 400×300 in a square: 50-row bars above and below.
        {400,
         400,
         {{200, 10, blackYuv}, {200, 390, blackYuv}, {100, 200, redYuv}, {300, 200, blueYuv}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        auto config = sized(c.width, c.height);
        config.layout = PixelLayout::i420;
        auto frame = firstFrame(windowFilter(target.id()), config);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->layout, PixelLayout::i420);
        EXPECT_EQ(frame->stride, c.width);
        ASSERT_TRUE(frame->holdsPicture());
        for (const auto& [x, y, expected] : c.samples) {
            auto sample = X11FrameCollector::yuv(*frame, x, y);
            for (int i = 0; i < 3; ++i) {
                EXPECT_NEAR(sample[i], expected[i], 2)
                    << "component " << i << " at " << x << "," << y;
            }
        }
    }
}

TEST_F(X11CaptureStreamTest, StaticWindowGivesIdleTicksAndAnimatedWindowCompleteFrames) {
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
    EXPECT_EQ(refusal(windowFilter(0x7fffff)), CaptureError::kNoCaptureSource);
}

TEST_F(X11CaptureStreamTest, MinimisedWindowIsReportedHiddenWithoutFrames) {
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
    EXPECT_EQ(refusal(windowFilter(target.id())), CaptureError::kFailedToStart);
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

    auto plain = firstFrame(windowFilter(target.id()), sized(400, 300, false));
    ASSERT_TRUE(plain);
    EXPECT_EQ(differs(*plain, 22, 22), 0);
}

TEST_F(X11CaptureStreamTest, DisplayCaptureShowsTheScreen) {
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

    filter.displayID = 0x7ffffff;
    EXPECT_EQ(refusal(filter), CaptureError::kNoCaptureSource);
}

TEST_F(X11CaptureStreamTest, ApplicationRegionShowsOnlyTheApplicationsWindows) {
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
    X11TestWindow stranger(display, test::otherApplication(x + 100, y + 100, 150, 100, blue));
    X11TestWindow popup(display, test::popupMenu(x + 250, y + 50, 120, 80, green));
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

// Only what the region shows is composed again: a static window whose application has another
// window outside the region gives idle ticks, not a full frame on every tick.
TEST_F(X11CaptureStreamTest, AStaticApplicationRegionIsIdleWhateverLiesOutsideIt) {
    X11TestWindow target(display, {.title = "Editor", .x = 400, .y = 300, .colour = red});
    X11TestWindow palette(
        display,
        {.title = "Palette", .x = 20, .y = 20, .width = 120, .height = 100, .colour = green});
    auto [x, y] = display.position(target.id());
    CaptureFilter filter = windowFilter(target.id());
    filter.kind = CaptureFilter::Kind::applicationRegion;
    CaptureStreamConfig config = sized(440, 340);
    config.sourceRect = CaptureRect{double(x - 20), double(y - 20), 440, 340};
    stream.start(filter, config, frames.handlers());
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.idle() >= 30; }))
        << frames.completeCount() << " complete frames";
    EXPECT_LE(frames.completeCount(), 3);

    // What shows still changes the picture.
    target.fill(blue);
    ASSERT_TRUE(frames.waitFor([&](const auto& c) { return c.latestPixel(220, 170) == blue; }));
}

}  // namespace
}  // namespace pavix
