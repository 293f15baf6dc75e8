// The capture of a Studio on fake platform parts, and the writer that takes its frames to the
// encoder.
#include "core/capture/Capture.h"

#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "core/capture/CaptureError.h"
#include "core/capture/CaptureWriter.h"
#include "support/Failure.h"
#include "support/FakeCapturePlatform.h"
#include "support/FakeVideoEncoder.h"
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
    timing.firstFrameTimeout = std::chrono::seconds(1);
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
        return test::failureOf([&] { h.await(std::move(operation)); });
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

// An approval measures the encoder ahead, as a 1920×1080 start would; the start then opens the
// encoder at the effort that fits. A full-effort frame costing ten seconds fits no machine.
TEST_F(CaptureTest, AnApprovalMeasuresTheEncoderAheadAndTheStartUsesTheEffortThatFits) {
    parts.probe.rule = [](const VideoEncoderSettings& s) { return !s.requiresHardware; };
    parts.probe.cost = [](const VideoEncoderSettings& s) {
        return std::optional(s.effort == EncoderEffort::full ? 10.0 : 0.001);
    };
    h.studio().setConsent(true);
    ASSERT_TRUE(h.runUntil([&] { return parts.probe.costAsked().size() == 4; }));
    const auto ahead = parts.probe.costAsked();
    EXPECT_EQ(std::tie(ahead[0].width, ahead[0].height, ahead[0].effort),
              std::make_tuple(1920, 1080, EncoderEffort::full));
    EXPECT_EQ(ahead[1].effort, EncoderEffort::reduced);

    h.await(capture.start(windowSource(2560, 1440), file));
    EXPECT_EQ(parts.encoders->openedWidths, (std::vector<int>{1920}));
    EXPECT_EQ(parts.encoders->openedEfforts, (std::vector{EncoderEffort::reduced}));
    EXPECT_TRUE(h.log.contains("encoder: 1920x1080 at reduced effort, 0.06 of "));
    h.await(capture.stop());
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

// The first frame and the stream's end reach the model in one turn, while the start waits: the
// start sees both and fails, rather than leave a capture that looks running with a dead stream.
TEST_F(CaptureTest, AStreamThatEndsInTheTurnThatBringsTheFirstFrameFailsTheStart) {
    parts.streams->firstFrameDelay = std::chrono::milliseconds(100);
    parts.streams->failAfterFrames.emplace(
        20, CaptureError(CaptureError::kSystemStoppedStream, "stopped"));
    std::optional<std::string> failure;
    asio::co_spawn(h.io, capture.start(windowSource(1280, 720), file),
                   [&](std::exception_ptr error) {
                       failure = test::failureOf([&] {
                           if (error) {
                               std::rethrow_exception(error);
                           }
                       });
                   });
    // The start reaches its wait; then the model stays away until the frames (20, about 40 ms)
    // and the stream's end have all been handed to it.
    ASSERT_TRUE(h.runUntil([&] { return parts.streams->starts == 1; }));
    h.runFor(std::chrono::milliseconds(30));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(h.runUntil([&] { return failure.has_value(); }));
    EXPECT_EQ(*failure, "stopped");
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

using test::failureOf;
using testing::FakeVideoEncoder;
using testing::FakeVideoEncoderLog;

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kT0 = 5'000 * kMs;  // an arbitrary monotonic time

const CaptureEncoding kEncoding{CaptureGeometry{64, 48}, 1'000'000, false};

VideoFrame frame(std::int64_t timeNs, bool complete = true) {
    static const auto pixels = std::make_shared<const std::vector<std::uint8_t>>(64 * 48 * 4, 0);
    VideoFrame f;
    f.width = 64;
    f.height = 48;
    f.stride = 64 * 4;
    f.pixels = pixels;
    f.captureTimeNs = timeNs;
    f.complete = complete;
    return f;
}

class CaptureWriterTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeVideoEncoderLog> log = std::make_shared<FakeVideoEncoderLog>();

    std::unique_ptr<CaptureWriter> make(std::size_t depth = CaptureWriter::defaultQueueDepth) {
        return std::make_unique<CaptureWriter>("/tmp/out.mp4", kEncoding,
                                               std::make_unique<FakeVideoEncoder>(log), depth);
    }
};

// What a frame's pixels must hold, by layout; a geometry that cannot be is never taken.
TEST(VideoFrameGeometry, BytesNeededFollowTheLayout) {
    using enum PixelLayout;
    // Layout, width, height, stride and the bytes needed (0: no picture has that geometry).
    const std::vector<std::tuple<PixelLayout, int, int, int, std::int64_t>> cases{
        {bgra, 64, 48, 256, 256 * 48},
        {bgra, 63, 48, 256, 256 * 47 + 63 * 4},  // rows end early
        {bgra, 64, 48, 255, 0},
        {bgra, 0, 48, 256, 0},
        {i420, 64, 48, 64, 64 * 48 * 3 / 2},
        {i420, 64, 48, 80, 80 * 48 * 3 / 2},
        {i420, 63, 48, 64, 0},
        {i420, 64, 47, 64, 0},
        {i420, 64, 48, 63, 0},
        {i420, 64, 48, 62, 0}};
    for (const auto& [layout, width, height, stride, needed] : cases) {
        VideoFrame f;
        f.layout = layout;
        f.width = width;
        f.height = height;
        f.stride = stride;
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height) + " stride " +
                     std::to_string(stride));
        EXPECT_EQ(f.bytesNeeded(), needed);
        auto holding = [&](std::int64_t bytes) {
            f.pixels = std::make_shared<const std::vector<std::uint8_t>>(std::size_t(bytes));
            return f.holdsPicture();
        };
        EXPECT_EQ(holding(std::max<std::int64_t>(needed, 1)), needed > 0);
        EXPECT_FALSE(needed > 1 && holding(needed - 1));
    }
}

TEST_F(CaptureWriterTest, OpensTheEncoderWithTheEncodingsSettingsOrSaysWhyNot) {
    make();
    EXPECT_EQ(log->path, "/tmp/out.mp4");
    ASSERT_TRUE(log->settings);
    EXPECT_EQ(log->settings->width, 64);
    EXPECT_EQ(log->settings->height, 48);
    EXPECT_EQ(log->settings->bitrate, 1'000'000);
    EXPECT_EQ(log->settings->frameRate, 60);
    EXPECT_FALSE(log->settings->requiresHardware);

    // An encoder that cannot open without an error of its own gets the cannot-encode sentence.
    log->openResult = false;
    EXPECT_EQ(failureOf([&] { make(); }), "This computer cannot encode the recording.");
    log->openError = std::make_exception_ptr(std::runtime_error("no such folder"));
    EXPECT_EQ(failureOf([&] { make(); }), "no such folder");
}

TEST_F(CaptureWriterTest, TakesOnlyCompleteFramesInStrictlyIncreasingTimeFromTheFirstTaken) {
    auto writer = make();
    int firstFrames = 0;
    writer->setOnFirstFrame([&] { ++firstFrames; });

    writer->append(frame(kT0 - 10 * kMs, false));  // idle before anything: not the origin
    writer->append(frame(kT0));                    // origin of the timeline
    ASSERT_TRUE(log->waitForAppends(1));
    writer->append(frame(kT0 + 10 * kMs, false));  // idle: skipped
    writer->append(frame(kT0));                    // same time: dropped
    writer->append(frame(kT0 - 1));                // backwards: dropped
    writer->append(frame(kT0 + 17 * kMs));
    ASSERT_TRUE(log->waitForAppends(2));
    writer->append(frame(kT0 + 33 * kMs));
    VideoFrame broken = frame(kT0 + 40 * kMs);
    broken.stride = 10;  // too short for its width
    writer->append(broken);
    writer->finish(kT0 + 100 * kMs);

    EXPECT_EQ(log->appendedPts, (std::vector<std::int64_t>{0, 17 * kMs, 33 * kMs}));
    EXPECT_EQ(log->finishedAt, 100 * kMs);  // from the origin, not from the idle frame
    EXPECT_EQ(firstFrames, 1);
    auto c = writer->counters();
    EXPECT_EQ(c.framesAppended, 3);
    EXPECT_EQ(c.framesIncomplete, 2);
    EXPECT_EQ(c.framesOutOfOrder, 2);
    EXPECT_EQ(c.framesInvalid, 1);
    EXPECT_EQ(c.framesShed, 0);
}

// How a file ends: completed at the later of the stop time and the last frame, or abandoned
// with the first error that came up.
TEST_F(CaptureWriterTest, EachEndingCompletesOrAbandonsTheFileWithItsOutcome) {
    using Script = std::function<void(FakeVideoEncoderLog&)>;
    const Script asIs = [](FakeVideoEncoderLog&) {};
    const Script cannotComplete = [](FakeVideoEncoderLog& l) { l.finishResult = false; };
    const Script completeThrows = [](FakeVideoEncoderLog& l) {
        l.finishError = std::make_exception_ptr(std::runtime_error("rename failed"));
    };
    const Script frameThrows = [](FakeVideoEncoderLog& l) {
        l.appendThrows = [](std::int64_t) { throw std::runtime_error("disk full"); };
    };
    // Whether the frames at 0 and 50 ms are complete, when the writer is stopped (-1: it is
    // destroyed instead), what finish throws, when the file is completed (-1: never), and how
    // often it is abandoned.
    struct Case {
        const char* name;
        Script script;
        bool complete;
        std::int64_t stopMs;
        const char* outcome;
        std::int64_t finishedAtMs;
        int cancels;
    };
    for (const auto& c : std::vector<Case>{
             {"stop after the last frame", asIs, true, 80, "", 80, 0},
             {"stop before the last frame", asIs, true, 20, "", 50, 0},
             {"no complete frame", asIs, false, 100, "The recording has no frames.", -1, 1},
             {"cannot complete", cannotComplete, true, 9, "The recording could not be saved.", 50,
              0},
             {"error on completing", completeThrows, true, 60, "rename failed", 60, 0},
             {"error of its own on a frame", frameThrows, true, 60, "disk full", -1, 1},
             {"destroyed while open", asIs, true, -1, "(destroyed)", -1, 1}}) {
        SCOPED_TRACE(c.name);
        log = std::make_shared<FakeVideoEncoderLog>();
        c.script(*log);
        auto writer = make();
        writer->append(frame(kT0, c.complete));
        writer->append(frame(kT0 + 50 * kMs, c.complete));
        ASSERT_TRUE(log->waitForAppends(c.complete ? 1 : 0));
        if (c.stopMs >= 0) {
            EXPECT_EQ(failureOf([&] { writer->finish(kT0 + c.stopMs * kMs); }), c.outcome);
        } else {
            writer.reset();
        }
        EXPECT_EQ(log->finishedAt.value_or(-kMs), c.finishedAtMs * kMs);
        EXPECT_EQ(log->cancels, c.cancels);
    }
}

// While the encoder is behind, append returns at once: the queue fills, later frames are shed,
// and once the encoder has caught up there is room again.
TEST_F(CaptureWriterTest, ShedsNewFramesWithoutWaitingWhileTheEncoderIsBehind) {
    for (std::size_t depth : {1u, 2u}) {
        SCOPED_TRACE(depth);
        log = std::make_shared<FakeVideoEncoderLog>();
        auto writer = make(depth);
        log->block();
        writer->append(frame(kT0));  // being encoded (blocked)
        ASSERT_TRUE(log->waitForBlockedAppend());
        std::vector<std::int64_t> expected{0};
        for (std::size_t i = 1; i <= depth; ++i) {  // queued
            writer->append(frame(kT0 + std::int64_t(i) * kMs));
            expected.push_back(std::int64_t(i) * kMs);
        }
        for (int i = 10; i < 1010; ++i) {  // shed
            writer->append(frame(kT0 + i * kMs));
        }
        EXPECT_EQ(writer->counters().framesShed, 1000);
        log->unblock();
        ASSERT_TRUE(log->waitForAppends(depth + 1));
        writer->append(frame(kT0 + 2000 * kMs));
        expected.push_back(2000 * kMs);
        writer->finish(kT0 + 2000 * kMs);
        EXPECT_EQ(log->appendedPts, expected);
        EXPECT_EQ(writer->counters().framesAppended, std::int64_t(depth) + 2);
        EXPECT_EQ(writer->counters().framesShed, 1000);
    }
}

TEST_F(CaptureWriterTest, FirstFailureIsStickyReportedOnceAndThrownByFinish) {
    log->appendResult = [](std::int64_t index) { return index != 1; };  // second frame fails
    log->appendThrows = [](std::int64_t index) {
        if (index == 2)
            throw std::runtime_error("second failure");
    };
    auto writer = make();
    std::atomic<int> failures = 0;
    std::string reported;
    writer->setOnFailure([&](std::exception_ptr error) {
        ++failures;
        reported = failureOf([&] { std::rethrow_exception(error); });
    });
    writer->append(frame(kT0));
    ASSERT_TRUE(log->waitForAppends(1));
    writer->append(frame(kT0 + 16 * kMs));
    ASSERT_TRUE(log->waitForAppends(2));
    // After the failure no frame reaches the encoder.
    for (int i = 2; i < 6; ++i) {
        writer->append(frame(kT0 + i * 16 * kMs));
    }
    EXPECT_EQ(failureOf([&] { writer->finish(kT0 + 1000 * kMs); }),
              "The recording could not be encoded.");
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(reported, "The recording could not be encoded.");
    EXPECT_EQ(log->appendedPts.size(), 2u);
    EXPECT_FALSE(log->finishedAt);  // a failed file is abandoned, not completed
    EXPECT_EQ(log->cancels, 1);
    // A second finish gives the same outcome.
    EXPECT_EQ(failureOf([&] { writer->finish(kT0 + 1000 * kMs); }),
              "The recording could not be encoded.");
}

TEST_F(CaptureWriterTest, CancelAbandonsTheFileAndIgnoresLaterFrames) {
    auto writer = make();
    writer->append(frame(kT0));
    ASSERT_TRUE(log->waitForAppends(1));
    writer->cancel();
    EXPECT_EQ(log->cancels, 1);
    writer->append(frame(kT0 + 16 * kMs));
    writer->append(frame(kT0 + 32 * kMs));
    EXPECT_EQ(log->appendedPts.size(), 1u);
    EXPECT_EQ(writer->counters().framesAppended, 1);
    EXPECT_EQ(failureOf([&] { writer->finish(kT0 + kMs); }), "The recording has no frames.");
    writer->cancel();  // a second cancel does nothing
    EXPECT_EQ(log->cancels, 1);
    EXPECT_FALSE(log->finishedAt);
}

TEST_F(CaptureWriterTest, CancelFromTheFailureCallbackDoesNotDeadlock) {
    log->appendResult = [](std::int64_t) { return false; };
    auto writer = make();
    CaptureWriter* raw = writer.get();
    std::atomic<bool> called = false;
    writer->setOnFailure([&](std::exception_ptr) {
        raw->cancel();
        raw->finish(kT0);  // returns at once from the encoding thread
        called = true;
    });
    writer->append(frame(kT0));
    ASSERT_TRUE(log->waitForAppends(1));
    while (!called)
        std::this_thread::yield();
    writer.reset();
    EXPECT_EQ(log->cancels, 1);
}

}  // namespace
}  // namespace pavix
