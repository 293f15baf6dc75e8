#include "core/capture/Capture.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <asio/co_spawn.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <filesystem>
#include <fstream>

#include "core/capture/CaptureError.h"
#include "core/session/PavixError.h"
#include "support/FakeCapturePlatform.h"
#include "support/FakeVideoEncoder.h"
#include "support/Fakes.h"

namespace pavix {
namespace {

namespace fs = std::filesystem;
using testing::FakeEncoderProbe;
using testing::FakeEncoderScript;
using testing::FakeMediaReader;
using testing::FakeStreamScript;
using testing::FakeWindowLayers;

constexpr std::uint32_t kWindow = 77;
constexpr std::uint32_t kDisplay = 5;

ShareableWindow window(double width, double height, bool withApp) {
    ShareableWindow w;
    w.id = kWindow;
    w.title = "Editor";
    if (withApp) {
        w.appName = "Editor App";
        w.appId = "editor";
    }
    w.pid = 1234;
    w.x = 100;
    w.y = 100;
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

std::string fileText(const fs::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class CaptureTest : public ::testing::Test {
  protected:
    CaptureTest() {
        folder = fs::temp_directory_path() /
                 ("pavix-capture-" + std::to_string(::getpid()) + "-" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(folder);
        fs::create_directories(folder);
        file = folder / "Pavix-test.mp4";
        content.set({{window(2560, 1440, false)}, {{kDisplay, 0, 0, 3840, 2160}}});
    }
    ~CaptureTest() override {
        capture.reset();
        pool.join();
        fs::remove_all(folder);
    }

    Capture& make(Timing timing = fastTiming()) {
        CapturePlatform platform;
        platform.streams = [s = streams] {
            return std::make_unique<testing::FakeCaptureStream>(s);
        };
        platform.encoders = [e = encoders] {
            return std::make_unique<testing::FileVideoEncoder>(e);
        };
        platform.probe = &probe;
        platform.media = &media;
        platform.layers = &layers;
        Capture::Parts parts;
        parts.executor = io.get_executor();
        parts.pool = &pool;
        parts.platform = platform;
        parts.content = &content;
        parts.defaults = &defaults;
        parts.log = &log;
        parts.timing = timing;
        parts.libraryLabel = "Videos/Pavix";
        capture = std::make_unique<Capture>(std::move(parts));
        return *capture;
    }

    static Timing fastTiming() {
        Timing timing;
        timing.firstFramePoll = std::chrono::milliseconds(5);
        timing.layerInterval = std::chrono::milliseconds(5);
        return timing;
    }

    // Runs `operation` to its end on the test's thread; its error is rethrown.
    template <class T>
    T run(asio::awaitable<T> operation) {
        std::optional<T> value;
        std::exception_ptr error;
        bool done = false;
        asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e, T v) {
            error = e;
            value = std::move(v);
            done = true;
        });
        drive([&] { return done; });
        if (error) {
            std::rethrow_exception(error);
        }
        return std::move(*value);
    }
    void run(asio::awaitable<void> operation) {
        std::exception_ptr error;
        bool done = false;
        asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e) {
            error = e;
            done = true;
        });
        drive([&] { return done; });
        if (error) {
            std::rethrow_exception(error);
        }
    }
    std::string failureOf(asio::awaitable<void> operation) {
        try {
            run(std::move(operation));
        } catch (const std::exception& e) {
            return e.what();
        }
        return "(no error)";
    }
    bool drive(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "timed out";
                return false;
            }
            io.run_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> guard{io.get_executor()};
    asio::thread_pool pool{2};
    std::shared_ptr<FakeStreamScript> streams = std::make_shared<FakeStreamScript>();
    std::shared_ptr<FakeEncoderScript> encoders = std::make_shared<FakeEncoderScript>();
    FakeEncoderProbe probe;
    FakeMediaReader media;
    FakeWindowLayers layers;
    test::FakeShareableContent content;
    MemoryDefaults defaults;
    test::CapturingLog log;
    fs::path folder;
    fs::path file;
    std::unique_ptr<Capture> capture;
};

TEST_F(CaptureTest, FallsBackToTheNextSizeWhenTheEncoderRefusesAndDeletesThePartialFile) {
    auto& capture = make();
    encoders->refuseWidths = {2560};
    run(capture.start(windowSource(2560, 1440), file));

    EXPECT_EQ(encoders->openedWidths, (std::vector<int>{2560, 1920}));
    EXPECT_TRUE(log.contains("encoder rejected 2560x1440; trying a smaller size"));
    ASSERT_TRUE(capture.encoding());
    EXPECT_EQ(capture.width(), 1920);
    EXPECT_EQ(capture.height(), 1080);
    // The second attempt could create the file exclusively only because the first one's was
    // deleted; what is there now is the second attempt's.
    EXPECT_EQ(fileText(file), "width 1920\n");
    ASSERT_EQ(streams->configs.size(), 2u);
    EXPECT_EQ(streams->configs.back().width, 1920);
    EXPECT_EQ(streams->configs.back().height, 1080);
    EXPECT_TRUE(streams->configs.back().showsCursor);
    EXPECT_EQ(streams->stops, 1);  // the refused attempt's stream

    // A second start while recording leaves the running capture alone.
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), folder / "other.mp4")),
              "Already recording");
    EXPECT_FALSE(fs::exists(folder / "other.mp4"));
    EXPECT_EQ(capture.width(), 1920);
    EXPECT_EQ(run(capture.stop()), file);
}

TEST_F(CaptureTest, RefusalOfEveryCandidateSaysWhyAndLeavesNoFile) {
    auto& capture = make();
    encoders->refuseWidths = {2560, 1920, 1280};
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), file)),
              "The recording could not be encoded.");
    EXPECT_TRUE(log.contains("encoder rejected 1920x1080; trying a smaller size"));
    EXPECT_TRUE(log.contains("encoder rejected 1280x720; no smaller size"));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_FALSE(capture.running());
}

TEST_F(CaptureTest, ProbeAndUserCapDecideTheCandidatesBeforeAnyEncoderOpens) {
    auto& capture = make();
    defaults.set("captureMaxWidth", 1500LL);  // refuses 2560 and 1920 without asking the probe
    run(capture.start(windowSource(2560, 1440), file));
    EXPECT_EQ(encoders->openedWidths, (std::vector<int>{1280}));
    ASSERT_EQ(probe.asked.size(), 1u);
    EXPECT_EQ(probe.asked[0].width, 1280);
    run(capture.stop());

    // Nothing encodable, and nothing recordable.
    probe.rule = [](const auto&) { return false; };
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), folder / "b.mp4")),
              "This computer cannot encode a video of this source.");
    content.set({{window(1, 1, false)}, {}});
    EXPECT_EQ(failureOf(capture.start(windowSource(1, 1), folder / "c.mp4")),
              "This source cannot be recorded. Choose another window or display.");
}

TEST_F(CaptureTest, NeverWritesOverAnExistingFile) {
    auto& capture = make();
    { std::ofstream(file) << "the user's video"; }
    EXPECT_EQ(failureOf(capture.start(windowSource(2560, 1440), file)),
              "This capture already exists locally. It will not be overwritten.");
    EXPECT_EQ(fileText(file), "the user's video");
    EXPECT_TRUE(encoders->openedWidths.empty());
}

TEST_F(CaptureTest, ConcurrentStopsFinishTheFileOnceAndValidateIt) {
    auto& capture = make();
    run(capture.start(windowSource(1280, 720), file));
    fs::permissions(file, fs::perms::all);

    std::optional<fs::path> first, second;
    std::exception_ptr errors[2];
    asio::co_spawn(io, capture.stop(), [&](std::exception_ptr e, fs::path p) {
        errors[0] = e;
        first = p;
    });
    asio::co_spawn(io, capture.stop(), [&](std::exception_ptr e, fs::path p) {
        errors[1] = e;
        second = p;
    });
    drive([&] { return first && second; });
    EXPECT_FALSE(errors[0]);
    EXPECT_FALSE(errors[1]);
    EXPECT_EQ(*first, file);
    EXPECT_EQ(*second, file);
    EXPECT_EQ(encoders->finishes, 1);
    EXPECT_EQ(media.reads, 1);
    EXPECT_EQ(media.lastPath, file.string());
    EXPECT_EQ(capture.durationMs(), 2500);
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_FALSE(capture.running());
    EXPECT_EQ(failureOf([&]() -> asio::awaitable<void> { co_await capture.stop(); }()),
              "No capture is running.");
}

TEST_F(CaptureTest, AFileWithoutADurationIsIncomplete) {
    auto& capture = make();
    media.seconds = std::nullopt;
    run(capture.start(windowSource(1280, 720), file));
    EXPECT_EQ(failureOf([&]() -> asio::awaitable<void> { co_await capture.stop(); }()),
              "The saved capture is incomplete.");
    EXPECT_TRUE(fs::exists(file));  // kept for the user
    EXPECT_FALSE(capture.running());
}

TEST_F(CaptureTest, FirstFrameWaitGivesUp) {
    auto& capture = make();
    streams->deliverFrames = false;
    auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(capture.start(windowSource(1280, 720), file)),
              "Recording did not start. Check screen recording permission.");
    auto waited = std::chrono::steady_clock::now() - began;
    // 50 rounds of 5 ms.
    EXPECT_GE(waited, std::chrono::milliseconds(250));
    EXPECT_EQ(streams->stops, 1);
    EXPECT_EQ(encoders->cancels, 1);
    EXPECT_FALSE(capture.running());
    EXPECT_EQ(encoders->openedWidths.size(), 1u);  // not a refusal: no smaller size tried
}

TEST_F(CaptureTest, StreamFailuresBecomeTheirSentences) {
    auto& capture = make();
    // A stream that cannot start is reported as it is.
    streams->startError = CaptureError(CaptureError::kNoCaptureSource, "gone");
    try {
        run(capture.start(windowSource(1280, 720), file));
        ADD_FAILURE() << "started";
    } catch (const CaptureError& error) {
        EXPECT_EQ(error.code(), CaptureError::kNoCaptureSource);
    }
    EXPECT_FALSE(capture.running());

    // A stream the system ends while recording: one sentence, once; the file is still saved.
    streams->startError.reset();
    std::vector<std::string> sentences;
    int errors = 0;
    capture.onFailure = [&](const std::string& text) { sentences.push_back(text); };
    capture.onFailureError = [&](std::exception_ptr) { ++errors; };
    fs::path next = folder / "next.mp4";
    run(capture.start(windowSource(1280, 720), next));
    streams->fail(CaptureError(CaptureError::kSystemStoppedStream, "stopped"));
    drive([&] { return !sentences.empty(); });
    EXPECT_EQ(sentences, std::vector<std::string>{
                             "The system stopped the capture. Recording stopped; the local "
                             "capture was saved. Approve a new recording to continue."});
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(run(capture.stop()), next);
    EXPECT_EQ(encoders->finishes, 1);
}

TEST_F(CaptureTest, AStreamThatEndsInTheWaitThatSawTheFirstFrameFailsTheStart) {
    auto timing = fastTiming();
    timing.firstFramePoll = std::chrono::milliseconds(300);  // both arrive in one wait
    auto& capture = make(timing);
    // The first check comes before any frame; the first frame and the stream's end (20 frames,
    // about 40 ms, later) both arrive while the start waits for its next check.
    streams->failAfterFrames.emplace(20,
                                     CaptureError(CaptureError::kSystemStoppedStream, "stopped"));
    try {
        run(capture.start(windowSource(1280, 720), file));
        ADD_FAILURE() << "the start reported a capture whose stream had ended";
    } catch (const CaptureError& e) {
        EXPECT_EQ(e.code(), CaptureError::kSystemStoppedStream);
    }
    EXPECT_FALSE(capture.running());
}

TEST_F(CaptureTest, ApplicationWindowIsRecordedWithItsPopupsAndLayersAreSampled) {
    content.set({{window(800, 600, true)}, {{kDisplay, 0, 0, 1920, 1080}}});
    layers.set({{kWindow, 100, 100, 800, 600, LayerWindow::Kind::window}});
    auto& capture = make();
    run(capture.start(windowSource(800, 600), file));

    // The window with 200 points around it, clipped to its display.
    ASSERT_TRUE(capture.region());
    EXPECT_EQ(*capture.region(), (CaptureRect{0, 0, 1100, 900}));
    const auto& filter = streams->filters.back();
    EXPECT_EQ(filter.kind, CaptureFilter::Kind::applicationRegion);
    EXPECT_EQ(filter.displayID, kDisplay);
    EXPECT_EQ(filter.appId, "editor");
    EXPECT_EQ(streams->configs.back().sourceRect, capture.region());
    EXPECT_EQ(capture.width(), 1100);

    drive([&] { return capture.layers().samples.size() == 1; });
    layers.set({{kWindow, 100, 100, 800, 600, LayerWindow::Kind::window},
                {78, 150, 150, 220, 330, LayerWindow::Kind::popup}});
    drive([&] { return capture.layers().samples.size() == 2; });
    layers.set({{kWindow, 100, 100, 800, 600, LayerWindow::Kind::window}});
    drive([&] { return capture.layers().samples.size() == 3; });
    const auto& samples = capture.layers().samples;
    ASSERT_EQ(samples[1].rects.size(), 2u);
    EXPECT_EQ(samples[1].rects[1].kind, "popup");
    EXPECT_DOUBLE_EQ(samples[1].rects[1].x, 0.1364);  // 150 / 1100
    run(capture.stop());
    auto kept = capture.layers().samples.size();
    io.run_for(std::chrono::milliseconds(30));
    EXPECT_EQ(capture.layers().samples.size(), kept);  // sampling ended with the stop
}

}  // namespace
}  // namespace pavix
