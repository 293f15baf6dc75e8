#include "core/capture/Capture.h"

#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <filesystem>
#include <fstream>

#include "core/capture/CaptureError.h"
#include "support/FakeCapturePlatform.h"
#include "support/LibraryRecords.h"
#include "support/StudioHarness.h"

namespace pavix {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kWindow = 77;
constexpr std::uint32_t kDisplay = 5;

ShareableWindow window(double width, double height, bool withApp) {
    ShareableWindow w;
    w.id = kWindow;
    w.title = "Editor";
    w.appName = withApp ? std::optional<std::string>("Editor App") : std::nullopt;
    w.appId = withApp ? "editor" : "";
    w.pid = 1234;
    w.x = w.y = 100;
    w.width = width;
    w.height = height;
    w.onScreen = true;
    return w;
}

CaptureSource windowSource(double width, double height) {
    CaptureSource source;
    source.id = "window-77";
    source.filter.kind = CaptureFilter::Kind::window;
    source.filter.windowID = kWindow;
    source.width = static_cast<std::int64_t>(width);
    source.height = static_cast<std::int64_t>(height);
    source.windowIDs = {kWindow};
    return source;
}

Timing captureTiming() {
    Timing timing = test::fastTiming();
    timing.firstFramePoll = std::chrono::milliseconds(5);
    timing.layerInterval = std::chrono::milliseconds(5);
    return timing;
}

// The capture of a Studio on fake platform parts, writing into the harness's scratch folder.
class CaptureTest : public ::testing::Test {
  protected:
    explicit CaptureTest(Timing timing = captureTiming())
        : h(timing, parts.platform()),
          capture(h.studio().capture()),
          folder(h.library.parent_path()),
          file(folder / "Pavix-test.mp4") {
        h.content.set({{window(2560, 1440, false)}, {{kDisplay, 0, 0, 3840, 2160}}});
    }

    // What `operation` fails with.
    template <class T>
    std::string failureOf(asio::awaitable<T> operation) {
        try {
            h.await(std::move(operation));
        } catch (const std::exception& e) {
            return e.what();
        }
        return "(no error)";
    }

    testing::FakeCaptureParts parts;
    test::StudioHarness h;
    Capture& capture;
    fs::path folder;
    fs::path file;
};

TEST_F(CaptureTest, FallsBackToTheNextSizeWhenTheEncoderRefusesAndDeletesThePartialFile) {
    parts.encoders->refuseWidths = {2560};
    h.await(capture.start(windowSource(2560, 1440), file));

    EXPECT_EQ(parts.encoders->openedWidths, (std::vector<int>{2560, 1920}));
    EXPECT_TRUE(h.log.contains("encoder rejected 2560x1440; trying a smaller size"));
    ASSERT_TRUE(capture.encoding());
    EXPECT_EQ(capture.width(), 1920);
    EXPECT_EQ(capture.height(), 1080);
    // The second attempt could create the file exclusively only because the first one's was
    // deleted; what is there now is the second attempt's.
    EXPECT_EQ(test::readBytes(file), "width 1920\n");
    ASSERT_EQ(parts.streams->configs.size(), 2u);
    EXPECT_EQ(parts.streams->configs.back().width, 1920);
    EXPECT_EQ(parts.streams->configs.back().height, 1080);
    EXPECT_TRUE(parts.streams->configs.back().showsCursor);
    EXPECT_EQ(parts.streams->stops, 1);  // the refused attempt's stream

    // A second start while recording leaves the running capture alone.
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), folder / "other.mp4")),
              "Already recording");
    EXPECT_FALSE(fs::exists(folder / "other.mp4"));
    EXPECT_EQ(capture.width(), 1920);
    EXPECT_EQ(h.await(capture.stop()), file);

    // Every candidate refused: the start says why and leaves no file.
    parts.encoders->refuseWidths = {2560, 1920, 1280};
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), folder / "none.mp4")),
              "The recording could not be encoded.");
    EXPECT_TRUE(h.log.contains("encoder rejected 1920x1080; trying a smaller size"));
    EXPECT_TRUE(h.log.contains("encoder rejected 1280x720; no smaller size"));
    EXPECT_FALSE(fs::exists(folder / "none.mp4"));
    EXPECT_FALSE(capture.running());
}

TEST_F(CaptureTest, ProbeAndUserCapDecideTheCandidatesBeforeAnyEncoderOpens) {
    h.defaults.set("captureMaxWidth", 1500LL);  // refuses 2560 and 1920 without asking the probe
    h.await(capture.start(windowSource(2560, 1440), file));
    EXPECT_EQ(parts.encoders->openedWidths, (std::vector<int>{1280}));
    ASSERT_EQ(parts.probe.asked.size(), 1u);
    EXPECT_EQ(parts.probe.asked[0].width, 1280);
    h.await(capture.stop());

    // Nothing encodable, and nothing recordable.
    parts.probe.rule = [](const auto&) { return false; };
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), folder / "b.mp4")),
              "This computer cannot encode a video of this source.");
    h.content.set({{window(1, 1, false)}, {}});
    EXPECT_EQ(failureOf(capture.start(windowSource(1, 1), folder / "c.mp4")),
              "This source cannot be recorded. Choose another window or display.");
}

TEST_F(CaptureTest, NeverWritesOverAnExistingFile) {
    { std::ofstream(file) << "the user's video"; }
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), file)),
              "This capture already exists locally. It will not be overwritten.");
    EXPECT_EQ(test::readBytes(file), "the user's video");
    EXPECT_TRUE(parts.encoders->openedWidths.empty());
}

TEST_F(CaptureTest, ConcurrentStopsFinishTheFileOnceAndValidateIt) {
    h.await(capture.start(windowSource(1280, 720), file));
    fs::permissions(file, fs::perms::all);

    std::vector<std::pair<std::exception_ptr, fs::path>> stops;
    for (int i = 0; i < 2; ++i) {
        asio::co_spawn(h.io, capture.stop(),
                       [&](std::exception_ptr e, fs::path p) { stops.emplace_back(e, p); });
    }
    ASSERT_TRUE(h.runUntil([&] { return stops.size() == 2; }));
    for (const auto& [error, path] : stops) {
        EXPECT_FALSE(error);
        EXPECT_EQ(path, file);
    }
    EXPECT_EQ(parts.encoders->finishes, 1);
    EXPECT_EQ(parts.media.reads, 1);
    EXPECT_EQ(parts.media.lastPath, file.string());
    EXPECT_EQ(capture.durationMs(), 2500);
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_FALSE(capture.running());
    EXPECT_EQ(failureOf(capture.stop()), "No capture is running.");
}

TEST_F(CaptureTest, AFileWithoutADurationIsIncomplete) {
    parts.media.seconds = std::nullopt;
    h.await(capture.start(windowSource(1280, 720), file));
    EXPECT_EQ(failureOf(capture.stop()), "The saved capture is incomplete.");
    EXPECT_TRUE(fs::exists(file));  // kept for the user
    EXPECT_FALSE(capture.running());
}

TEST_F(CaptureTest, FirstFrameWaitGivesUp) {
    parts.streams->deliverFrames = false;
    EXPECT_EQ(failureOf(capture.start(windowSource(1280, 720), file)),
              "Recording did not start. Check screen recording permission.");
    EXPECT_EQ(parts.streams->stops, 1);
    EXPECT_EQ(parts.encoders->cancels, 1);
    EXPECT_FALSE(capture.running());
    EXPECT_EQ(parts.encoders->openedWidths.size(), 1u);  // not a refusal: no smaller size tried
}

// The start checks for the first frame seldom: the frame and the stream's end arrive in one wait.
class CaptureWithSlowChecks : public CaptureTest {
  protected:
    CaptureWithSlowChecks() : CaptureTest(timing()) {}
    static Timing timing() {
        auto timing = captureTiming();
        timing.firstFramePoll = std::chrono::milliseconds(300);
        return timing;
    }
};

TEST_F(CaptureWithSlowChecks, AStreamThatEndsInTheWaitThatSawTheFirstFrameFailsTheStart) {
    // The first check comes before any frame (100 ms away); the first frame and the stream's
    // end (20 frames, about 40 ms, later) both arrive while the start waits for its next check.
    parts.streams->firstFrameDelay = std::chrono::milliseconds(100);
    parts.streams->failAfterFrames.emplace(
        20, CaptureError(CaptureError::kSystemStoppedStream, "stopped"));
    EXPECT_EQ(failureOf(capture.start(windowSource(1280, 720), file)), "stopped");
    EXPECT_FALSE(capture.running());
}

// The model may go away while a start waits on the pool, as when the application quits: the
// start's frame is destroyed after the model, with the executor, and must then touch nothing
// of the capture (the sanitized build reports the write into freed memory).
TEST(CaptureTeardown, AStartWaitingOnThePoolOutlivesItsCaptureHarmlessly) {
    testing::FakeCaptureParts parts;
    auto h = std::make_unique<test::StudioHarness>(captureTiming(), parts.platform());
    h->content.set({{window(1280, 720, false)}, {{kDisplay, 0, 0, 1920, 1080}}});
    auto& capture = h->studio().capture();
    asio::co_spawn(h->io, capture.start(windowSource(1280, 720), h->library / "a.mp4"),
                   asio::detached);
    ASSERT_EQ(h->io.run_one(), 1u);  // the start runs up to its offload and parks
    EXPECT_TRUE(capture.running());
    h.reset();
}

TEST_F(CaptureTest, ApplicationWindowIsRecordedWithItsPopupsAndLayersAreSampled) {
    h.content.set({{window(800, 600, true)}, {{kDisplay, 0, 0, 1920, 1080}}});
    parts.layers.set({{kWindow, 100, 100, 800, 600, LayerWindow::Kind::window}});
    h.await(capture.start(windowSource(800, 600), file));

    // The window with 200 points around it, clipped to its display.
    ASSERT_TRUE(capture.region());
    EXPECT_EQ(*capture.region(), (CaptureRect{0, 0, 1100, 900}));
    const auto& filter = parts.streams->filters.back();
    EXPECT_EQ(filter.kind, CaptureFilter::Kind::applicationRegion);
    EXPECT_EQ(filter.displayID, kDisplay);
    EXPECT_EQ(filter.appId, "editor");
    EXPECT_EQ(parts.streams->configs.back().sourceRect, capture.region());
    EXPECT_EQ(capture.width(), 1100);

    ASSERT_TRUE(h.runUntil([&] { return capture.layers().samples.size() == 1; }));
    parts.layers.set({{kWindow, 100, 100, 800, 600, LayerWindow::Kind::window},
                      {78, 150, 150, 220, 330, LayerWindow::Kind::popup}});
    ASSERT_TRUE(h.runUntil([&] { return capture.layers().samples.size() == 2; }));
    parts.layers.set({{kWindow, 100, 100, 800, 600, LayerWindow::Kind::window}});
    ASSERT_TRUE(h.runUntil([&] { return capture.layers().samples.size() == 3; }));
    const auto& samples = capture.layers().samples;
    ASSERT_EQ(samples[1].rects.size(), 2u);
    EXPECT_EQ(samples[1].rects[1].kind, "popup");
    EXPECT_DOUBLE_EQ(samples[1].rects[1].x, 0.1364);  // 150 / 1100
    h.await(capture.stop());
    auto kept = capture.layers().samples.size();
    h.runFor(std::chrono::milliseconds(30));
    EXPECT_EQ(capture.layers().samples.size(), kept);  // sampling ended with the stop
}

}  // namespace
}  // namespace pavix
