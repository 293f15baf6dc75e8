// Recordings and stills of real windows through the capture session, read back with FFmpeg.
// GoogleTest and cpp-httplib (it names an enumerator Success) come before any X11 header.
#include <gtest/gtest.h>

#include "support/StudioHarness.h"

#include <glib.h>
#include <gmock/gmock.h>

#include "IntegrationSupport.h"
#include "core/capture/Capture.h"
#include "core/capture/CaptureSources.h"
#include "core/session/PavixError.h"
#include "linux/FfmpegEncoderProbe.h"
#include "linux/FfmpegMediaReader.h"
#include "linux/FfmpegPngEncoder.h"
#include "linux/FfmpegVideoEncoder.h"
#include "linux/MediaProbe.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11WindowLayers.h"
#include "support/X11TestWindow.h"

namespace pavix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::X11TestWindow;

constexpr std::uint32_t red = 0xff0000, green = 0x00ff00, blue = 0x0000ff;

// The real platform parts of a recording on this display.
struct RealParts {
    FfmpegEncoderProbe probe;
    FfmpegMediaReader media;
    X11WindowLayers layers;
    FfmpegPngEncoder png;
    CapturePlatform platform() {
        CapturePlatform p;
        p.streams = [] { return std::make_unique<X11CaptureStream>(); };
        p.encoders = [] { return std::make_unique<FfmpegVideoEncoder>(); };
        p.probe = &probe;
        p.media = &media;
        p.layers = &layers;
        p.stills = &png;
        return p;
    }
};

Timing captureTiming() {
    Timing timing = test::fastTiming();
    timing.layerInterval = 33ms;
    return timing;
}

// Whether the RGB pixel is close to 0xRRGGBB (compression and limited range shift it a little).
bool near(const std::vector<std::uint8_t>& rgb, int width, int x, int y, std::uint32_t colour) {
    const std::uint8_t* p = rgb.data() + (std::size_t(y) * width + x) * 3;
    auto close = [](int a, int b) { return std::abs(a - b) < 40; };
    return close(p[0], colour >> 16 & 0xff) && close(p[1], colour >> 8 & 0xff) &&
           close(p[2], colour & 0xff);
}

class CaptureSessionTest : public ::testing::Test {
  protected:
    Capture& capture() { return harness.studio().capture(); }
    // The source for a window as the source list makes it, with the snapshot the capture reads.
    CaptureSource sourceFor(const X11TestWindow& window) {
        auto snapshot = content.current();
        harness.content.set(snapshot);
        const auto* listed = test::listedWindow(snapshot, window.id());
        EXPECT_NE(listed, nullptr) << "window not listed";
        return listed ? CaptureSources::windowSource(*listed) : CaptureSource{};
    }
    CaptureSource start(const X11TestWindow& window) {
        auto source = sourceFor(window);
        harness.await(capture().start(source, file), 20s);
        return source;
    }
    // Paints the window with moving content for `duration` while the capture runs.
    void animate(X11TestWindow& window, std::chrono::milliseconds duration) {
        auto end = std::chrono::steady_clock::now() + duration;
        for (int frame = 0; std::chrono::steady_clock::now() < end; ++frame) {
            const auto& o = window.options();
            window.fillRect(0, 0, o.width, o.height, (frame * 0x030507u) & 0xffffff);
            window.fillRect(frame * 6 % (o.width - 40), o.height / 3, 40, 40, 0xffffff);
            harness.runFor(16ms);  // the picture source's pace
        }
    }
    fs::path stop() { return harness.await(capture().stop(), 20s); }
    test::X11TestDisplay display;
    RealParts parts;
    X11ShareableContent content;
    test::StudioHarness harness{captureTiming(), parts.platform()};
    fs::path folder = harness.library.parent_path();  // removed with the harness
    fs::path file = folder / "Pavix-recording.mp4";
};

// Until the window closes: the sentence says so and the file is whole.
TEST_F(CaptureSessionTest, MovingWindowIsRecordedUntilItClosesAsH264HighWithoutBFrames) {
    auto window = std::make_unique<X11TestWindow>(
        display, test::X11TestWindowOptions{
                     .title = "Moving", .x = 300, .y = 200, .width = 640, .height = 400});
    std::vector<std::string> sentences;
    capture().onFailure = [&](const std::string& text) { sentences.push_back(text); };
    auto source = start(*window);
    ASSERT_TRUE(capture().encoding());
    // The window is recorded with room for its pop-ups around it.
    ASSERT_TRUE(capture().region());
    EXPECT_GT(capture().width(), source.width);
    EXPECT_EQ(capture().width(), std::int64_t(capture().region()->width) & ~1);
    auto began = std::chrono::steady_clock::now();
    animate(*window, 3s);
    window.reset();
    ASSERT_TRUE(harness.runUntil([&] { return !sentences.empty(); }, 5s));
    double recorded =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    EXPECT_EQ(sentences.front(),
              "The selected source is no longer available. Recording stopped; any saved capture "
              "remains in Videos/Pavix.");
    EXPECT_EQ(stop(), file);
    auto info = MediaProbe::read(file.string(), {true, 120});
    ASSERT_TRUE(info);
    EXPECT_EQ(std::tie(info->width, info->height, info->codec, info->profile, info->hasBFrames),
              std::make_tuple(capture().width(), capture().height(), "h264", "High", false));
    ASSERT_TRUE(info->durationSeconds);
    EXPECT_NEAR(*info->durationSeconds, recorded, 0.5);
    EXPECT_EQ(capture().durationMs(), std::int64_t(*info->durationSeconds * 1000));
    // Up to 60 pictures a second; a loaded machine delivers fewer.
    EXPECT_GE(info->frameCount, 45);
    EXPECT_LE(info->frameCount, std::int64_t(recorded * 60) + 5);
    EXPECT_EQ(test::modeOf(file), 0600u);
    // The layer track holds the window itself.
    ASSERT_FALSE(capture().layers().samples.empty());
    ASSERT_FALSE(capture().layers().samples.front().rects.empty());
    EXPECT_EQ(capture().layers().samples.front().rects.front().kind, "window");
}

// A pop-up of the application is in the layer track; a window of another one over the recorded
// window hides nothing of it in the video.
TEST_F(CaptureSessionTest, PopupIsInTheLayerTrackAndACoverIsNotInTheVideo) {
    X11TestWindow window(
        display,
        {.title = "With menu", .x = 300, .y = 200, .width = 600, .height = 400, .colour = red});
    start(window);
    auto started = std::chrono::steady_clock::now();
    harness.runFor(300ms);
    auto [x, y] = display.position(window.id());
    auto popup =
        std::make_unique<X11TestWindow>(display, test::popupMenu(x + 40, y + 30, 160, 220));
    harness.runFor(400ms);
    popup.reset();
    auto closedAt = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - started)
                        .count();
    harness.runFor(300ms);
    X11TestWindow cover(display, test::otherApplication(x - 20, y - 40, 700, 500, blue));
    harness.runFor(300ms);
    window.fill(green);  // changed while covered
    harness.runFor(700ms);
    stop();
    const auto& samples = capture().layers().samples;
    auto popupOf = [](const CaptureLayers::Sample& s) {
        return std::find_if(s.rects.begin(), s.rects.end(),
                            [](const auto& r) { return r.kind == "popup"; });
    };
    auto hasPopup = [&](const CaptureLayers::Sample& s) { return popupOf(s) != s.rects.end(); };
    auto shown = std::find_if(samples.begin(), samples.end(), hasPopup);
    ASSERT_NE(shown, samples.end());
    const auto& rect = *popupOf(*shown);
    const auto& region = *capture().region();
    EXPECT_NEAR(rect.x, (x + 40 - region.x) / region.width, 0.001);
    EXPECT_NEAR(rect.width, 160 / region.width, 0.001);
    EXPECT_NEAR(rect.radius, 12 / region.width, 0.001);
    auto gone = std::find_if(shown, samples.end(), [&](const auto& s) { return !hasPopup(s); });
    ASSERT_NE(gone, samples.end());
    // Dated one interval before it was seen gone, never before the sample that showed it.
    EXPECT_GE(gone->atMs, shown->atMs);
    EXPECT_LE(gone->atMs, closedAt + 100);
    EXPECT_GE(gone->atMs, closedAt - 150);
    // The window's centre in the last picture: its own green, not the cover's blue.
    const int width = int(capture().width()), height = int(capture().height());
    auto rgb = test::lastPicture(file, std::size_t(width) * height * 3);
    ASSERT_FALSE(rgb.empty());
    const double scale = width / region.width;
    EXPECT_TRUE(near(rgb, width, int((x + 300 - region.x) * scale),
                     int((y + 200 - region.y) * scale), green));
}

TEST_F(CaptureSessionTest, ScreenshotIsAPngOfTheSelectedWindow) {
    X11TestWindow window(
        display,
        {.title = "Still", .x = 300, .y = 200, .width = 420, .height = 260, .colour = green});
    auto source = sourceFor(window);
    harness.await(harness.studio().refreshSources());
    harness.studio().selectSource(source.id);
    auto reply = harness.await(harness.studio().run("screenshot", nlohmann::json::array()), 10s);
    EXPECT_EQ(reply["contentType"], "image/png");
    EXPECT_EQ(reply["redactionPassed"], false);
    gsize size = 0;
    guchar* png = g_base64_decode(reply["body"]["$bytes"].get<std::string>().c_str(), &size);
    const fs::path still = folder / "still.png";
    std::ofstream(still, std::ios::binary).write(reinterpret_cast<const char*>(png), size);
    g_free(png);
    ASSERT_GT(size, 24u);
    auto info = MediaProbe::read(still.string(), {true, 1});
    ASSERT_TRUE(info);
    EXPECT_EQ(info->codec, "png");
    EXPECT_EQ(info->width, source.width & ~1);
    EXPECT_EQ(info->height, source.height & ~1);
    auto rgb = test::lastPicture(still, std::size_t(info->width) * info->height * 3);
    ASSERT_FALSE(rgb.empty());
    EXPECT_TRUE(near(rgb, info->width, info->width / 2, info->height / 2, green));
    // Not while a recording runs.
    harness.await(capture().start(source, file), 20s);
    EXPECT_THAT([&] { harness.await(harness.studio().run("screenshot", nlohmann::json::array())); },
                ::testing::ThrowsMessage<PavixError>(
                    ::testing::StrEq("Preview is available after recording stops.")));
    stop();
}

}  // namespace
}  // namespace pavix
