// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11CaptureStream.h"

#include <X11/extensions/XTest.h>

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

constexpr std::uint32_t red = 0xff0000, blue = 0x0000ff, green = 0x00ff00, black = 0x000000;

CaptureFilter windowFilter(Window window, CaptureFilter::Kind kind = CaptureFilter::Kind::window) {
    CaptureFilter filter;
    filter.kind = kind;
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

constexpr auto pixel = &X11FrameCollector::pixel;

// The pointer waits in a corner, away from the windows, unless a test moves it.
class X11CaptureStreamTest : public ::testing::Test {
  protected:
    X11CaptureStreamTest() { parkPointer(1900, 1060); }
    void parkPointer(int x, int y) {
        XTestFakeMotionEvent(display.get(), DefaultScreen(display.get()), x, y, CurrentTime);
        XSync(display.get(), False);
    }
    void start(const CaptureFilter& filter, const CaptureStreamConfig& config) {
        stream.start(filter, config, frames.handlers());
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
    start(windowFilter(target.id()), sized(400, 300));
    auto first = frames.nextComplete();
    ASSERT_TRUE(first);
    EXPECT_EQ(std::tie(first->width, first->height, first->stride),
              std::make_tuple(400, 300, 1600));
    EXPECT_EQ(pixel(*first, 200, 150), red);
    // Covered by another application, the window's own pixels still show, changes included.
    auto [x, y] = display.position(target.id());
    X11TestWindow cover(display, test::otherApplication(x - 50, y - 80, 600, 500, blue));
    target.fillRect(0, 0, 100, 100, green);
    ASSERT_TRUE(frames.waitFor(
        [](const auto& c) { return c.complete() > 1 && c.latestPixel(10, 10) == green; }));
    auto covered = frames.lastComplete();
    EXPECT_EQ(pixel(*covered, 200, 150), red);
    EXPECT_EQ(pixel(*covered, 399, 299), red);
    // Time stamps come from the monotonic clock (steady_clock's here).
    const std::int64_t nowNs = std::chrono::steady_clock::now().time_since_epoch().count();
    EXPECT_LE(covered->captureTimeNs, nowNs);
    EXPECT_GT(covered->captureTimeNs, nowNs - 5'000'000'000);
}

// Other sizes fit on black: filtered, sampled for previews, or in the encoder's 4:2:0.
TEST_F(X11CaptureStreamTest, OtherSizesAreScaledToFitOnBlackInEachLayout) {
    X11TestWindow target(display, {.title = "Scaled", .width = 400, .height = 300, .colour = red});
    target.fillRect(200, 0, 200, 300, blue);                           // the right half
    using Samples = std::vector<std::tuple<int, int, std::uint32_t>>;  // x, y, colour
    // Half the size: the same picture. A square: 50-row bars above and below.
    const Samples half = {{0, 0, red}, {98, 149, red}, {101, 0, blue}, {199, 149, blue}};
    const Samples boxed = {
        {200, 10, black}, {200, 390, black}, {100, 60, red}, {0, 200, red}, {399, 200, blue}};
    const Samples planarSame = {{100, 150, red}, {300, 150, blue}};
    const Samples planarHalf = {{50, 75, red}, {150, 75, blue}};
    const Samples planarBoxed = {
        {200, 10, black}, {200, 390, black}, {100, 200, red}, {300, 200, blue}};
    const Samples planarDouble = {
        {10, 10, red}, {390, 590, red}, {410, 10, blue}, {790, 590, blue}};
    const std::map<std::uint32_t, std::array<int, 3>> yuv = {
        {red, {63, 102, 240}}, {blue, {32, 240, 118}}, {black, {16, 128, 128}}};
    struct Case {
        const char* name;
        PixelLayout layout;
        bool draft;
        int width, height;
        const Samples& samples;
    };
    for (const auto& c : std::vector<Case>{
             {"filtered half", PixelLayout::bgra, false, 200, 150, half},
             {"filtered square", PixelLayout::bgra, false, 400, 400, boxed},
             {"draft half", PixelLayout::bgra, true, 200, 150, half},
             {"draft square", PixelLayout::bgra, true, 400, 400, boxed},
             {"4:2:0 same", PixelLayout::i420, false, 400, 300, planarSame},
             {"4:2:0 half", PixelLayout::i420, false, 200, 150, planarHalf},
             {"4:2:0 square", PixelLayout::i420, false, 400, 400, planarBoxed},
             {"4:2:0 double", PixelLayout::i420, false, 800, 600, planarDouble},
         }) {
        SCOPED_TRACE(c.name);
        auto config = sized(c.width, c.height);
        config.layout = c.layout;
        config.draft = c.draft;
        auto frame = firstFrame(windowFilter(target.id()), config);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->width, c.width);
        EXPECT_EQ(frame->layout, c.layout);
        const bool planar = c.layout == PixelLayout::i420;
        EXPECT_EQ(frame->stride, planar ? c.width : c.width * 4);
        ASSERT_TRUE(frame->holdsPicture());
        for (const auto& [x, y, colour] : c.samples) {
            if (!planar) {
                EXPECT_EQ(pixel(*frame, x, y), colour) << x << "," << y;
                continue;
            }
            auto sample = X11FrameCollector::yuv(*frame, x, y);
            for (int i = 0; i < 3; ++i) {
                EXPECT_NEAR(sample[i], yuv.at(colour)[i], 2)
                    << "component " << i << " at " << x << "," << y;
            }
        }
    }
}

TEST_F(X11CaptureStreamTest, StaticWindowGivesIdleTicksAndAnimatedWindowCompleteFrames) {
    X11TestWindow target(display, {.title = "Static", .colour = red});
    start(windowFilter(target.id()), sized(400, 300));
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.idle() >= 30; }));
    EXPECT_EQ(frames.completeCount(), 1);
    int before = frames.completeCount();
    for (auto colour : {green, blue, red, green, blue, red}) {
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

// Minimised: hidden and without frames until shown again. Closed: the stream stops.
TEST_F(X11CaptureStreamTest, MinimisedWindowIsHiddenWithoutFramesAndAClosedOneEndsTheStream) {
    X11TestWindow target(display, {.title = "Minimised", .colour = red});
    start(windowFilter(target.id()), sized(400, 300));
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
    EXPECT_EQ(pixel(*shown, 200, 150), red);
    target.close();
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.error().has_value(); }));
    EXPECT_EQ(frames.errorCode(), CaptureError::kNoCaptureSource);
    ticks = frames.completeCount() + frames.idleCount();
    stream.stop();
    EXPECT_EQ(frames.completeCount() + frames.idleCount(), ticks);
    // Neither a window that does not exist nor a minimised one can start a capture.
    EXPECT_EQ(refusal(windowFilter(0x7fffff)), CaptureError::kNoCaptureSource);
    X11TestWindow minimised(display, {.title = "Minimised"});
    minimised.iconify();
    ASSERT_TRUE(eventually([&] { return !minimised.viewable(); }));
    EXPECT_EQ(refusal(windowFilter(minimised.id())), CaptureError::kFailedToStart);
}

TEST_F(X11CaptureStreamTest, CursorIsDrawnInWhereThePointerIs) {
    X11TestWindow target(display, {.title = "Pointer", .colour = red});
    auto [x, y] = display.position(target.id());
    parkPointer(x + 200, y + 150);
    start(windowFilter(target.id()), sized(400, 300, true));
    auto frame = frames.nextComplete();
    ASSERT_TRUE(frame);
    auto differs = [](const VideoFrame& f, int left, int top) {
        int count = 0;
        for (int row = top; row < top + 16; ++row) {
            for (int column = left; column < left + 16; ++column) {
                count += pixel(f, column, row) != red;
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
    start(filter, sized(int(monitors[0].width), int(monitors[0].height)));
    auto frame = frames.nextComplete();
    ASSERT_TRUE(frame);
    EXPECT_EQ(pixel(*frame, x + 200, y + 150), green);
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.idle() >= 5; }));
    target.fill(blue);
    ASSERT_TRUE(
        frames.waitFor([&](const auto& c) { return c.latestPixel(x + 200, y + 150) == blue; }));
    stream.stop();
    filter.displayID = 0x7ffffff;
    EXPECT_EQ(refusal(filter), CaptureError::kNoCaptureSource);
}

// Only the application's windows inside the region show, and a static region is idle.
TEST_F(X11CaptureStreamTest, ApplicationRegionShowsOnlyTheApplicationsWindows) {
    X11TestWindow target(display, {.title = "Editor", .x = 400, .y = 300, .colour = red});
    X11TestWindow palette(
        display,
        {.title = "Palette", .x = 20, .y = 20, .width = 120, .height = 100, .colour = green});
    auto [x, y] = display.position(target.id());
    CaptureStreamConfig config = sized(800, 700);
    config.sourceRect = CaptureRect{double(x - 200), double(y - 200), 800, 700};
    start(windowFilter(target.id(), CaptureFilter::Kind::applicationRegion), config);
    auto frame = frames.nextComplete();
    ASSERT_TRUE(frame);
    EXPECT_EQ(pixel(*frame, 400, 350), red);
    EXPECT_EQ(pixel(*frame, 5, 5), black);  // the desktop is not recorded
    ASSERT_TRUE(frames.waitFor([](const auto& c) { return c.idle() >= 30; }))
        << frames.completeCount() << " complete frames";
    EXPECT_LE(frames.completeCount(), 3);
    X11TestWindow stranger(display, test::otherApplication(x + 100, y + 100, 150, 100, blue));
    X11TestWindow popup(display, test::popupMenu(x + 250, y + 50, 120, 80, green));
    ASSERT_TRUE(frames.waitFor(
        [&](const auto& c) { return c.latestPixel(200 + 250 + 60, 200 + 50 + 40) == green; }));
    EXPECT_EQ(pixel(*frames.lastComplete(), 200 + 100 + 75, 200 + 100 + 50), red);
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
