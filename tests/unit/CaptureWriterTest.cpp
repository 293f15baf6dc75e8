#include "core/capture/CaptureWriter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "support/FakeVideoEncoder.h"

namespace pavix {
namespace {

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

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "(no error)";
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
    EXPECT_EQ(messageOf([&] { make(); }), "This computer cannot encode the recording.");
    log->openError = std::make_exception_ptr(std::runtime_error("no such folder"));
    EXPECT_EQ(messageOf([&] { make(); }), "no such folder");
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
             {"stop after the last frame", asIs, true, 80, "(no error)", 80, 0},
             {"stop before the last frame", asIs, true, 20, "(no error)", 50, 0},
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
            EXPECT_EQ(messageOf([&] { writer->finish(kT0 + c.stopMs * kMs); }), c.outcome);
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
        reported = messageOf([&] { std::rethrow_exception(error); });
    });
    writer->append(frame(kT0));
    ASSERT_TRUE(log->waitForAppends(1));
    writer->append(frame(kT0 + 16 * kMs));
    ASSERT_TRUE(log->waitForAppends(2));
    // After the failure no frame reaches the encoder.
    for (int i = 2; i < 6; ++i) {
        writer->append(frame(kT0 + i * 16 * kMs));
    }
    EXPECT_EQ(messageOf([&] { writer->finish(kT0 + 1000 * kMs); }),
              "The recording could not be encoded.");
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(reported, "The recording could not be encoded.");
    EXPECT_EQ(log->appendedPts.size(), 2u);
    EXPECT_FALSE(log->finishedAt);  // a failed file is abandoned, not completed
    EXPECT_EQ(log->cancels, 1);
    // A second finish gives the same outcome.
    EXPECT_EQ(messageOf([&] { writer->finish(kT0 + 1000 * kMs); }),
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
    EXPECT_EQ(messageOf([&] { writer->finish(kT0 + kMs); }), "The recording has no frames.");
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
