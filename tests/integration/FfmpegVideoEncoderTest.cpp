#include "linux/FfmpegVideoEncoder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "core/capture/CaptureWriter.h"
#include "linux/FfmpegEncoderProbe.h"
#include "linux/MediaProbe.h"
#include "support/LibraryRecords.h"

namespace pavix {
namespace {

namespace fs = std::filesystem;
constexpr std::int64_t kFrameNs = 1'000'000'000 / 60;
constexpr std::int64_t kT0 = 1'000'000'000'000;  // an arbitrary monotonic time

// Moving synthetic content: a gradient that scrolls and a bright box that travels.
VideoFrame movingFrame(int width, int height, int index, std::int64_t timeNs) {
    auto pixels = std::make_shared<std::vector<std::uint8_t>>(std::size_t(width) * height * 4);
    std::uint8_t* p = pixels->data();
    const int box = (index * 7) % std::max(1, width - 80);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x, p += 4) {
            const bool inBox = x >= box && x < box + 80 && y >= height / 3 && y < height / 3 + 80;
            p[0] = inBox ? 255 : std::uint8_t((x + index * 3) & 0xff);  // B
            p[1] = inBox ? 255 : std::uint8_t((y + index) & 0xff);      // G
            p[2] = inBox ? 255 : std::uint8_t(((x ^ y) >> 2) & 0xff);   // R
            p[3] = 255;
        }
    }
    VideoFrame frame;
    frame.width = width;
    frame.height = height;
    frame.stride = width * 4;
    frame.pixels = std::move(pixels);
    frame.captureTimeNs = timeNs;
    return frame;
}

CaptureEncoding encodingOf(int width, int height) {
    return CaptureEncoding{CaptureGeometry{width, height},
                           CaptureEncoding::bitrateFor(width, height), false};
}

// Hands `frame` to the writer and waits until it is encoded, so that none is shed.
void appendAndWait(CaptureWriter& writer, const VideoFrame& frame) {
    const auto before = writer.counters().framesAppended;
    writer.append(frame);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (writer.counters().framesAppended == before &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

// Top-level MP4 box types in file order.
std::vector<std::string> topLevelBoxes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> boxes;
    for (;;) {
        unsigned char header[16];
        if (!in.read(reinterpret_cast<char*>(header), 8))
            break;
        std::uint64_t size =
            (std::uint64_t(header[0]) << 24) | (header[1] << 16) | (header[2] << 8) | header[3];
        boxes.emplace_back(reinterpret_cast<char*>(header + 4), 4);
        std::uint64_t headerSize = 8;
        if (size == 1) {
            if (!in.read(reinterpret_cast<char*>(header + 8), 8))
                break;
            size = 0;
            for (int i = 8; i < 16; ++i)
                size = (size << 8) | header[i];
            headerSize = 16;
        }
        if (size == 0)
            break;  // to the end of the file
        if (size < headerSize)
            break;
        in.seekg(std::streamoff(size - headerSize), std::ios::cur);
    }
    return boxes;
}

// Hands `count` moving 640×360 frames, a 60th of a second apart from `first`, to the writer.
void appendMoving(CaptureWriter& writer, int first, int count) {
    for (int i = first; i < first + count; ++i) {
        appendAndWait(writer, movingFrame(640, 360, i, kT0 + i * kFrameNs));
    }
}

class FfmpegVideoEncoderTest : public ::testing::Test {
  protected:
    fs::path dir;
    void SetUp() override {
        char pattern[] = "/tmp/pavix-writer-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override { fs::remove_all(dir); }
    // A 640×360 recording into `path` with the real encoder.
    static std::unique_ptr<CaptureWriter> writerFor(const std::string& path) {
        return std::make_unique<CaptureWriter>(path, encodingOf(640, 360),
                                               std::make_unique<FfmpegVideoEncoder>());
    }
};

TEST_F(FfmpegVideoEncoderTest, ThreeSecondsOfMovingContentReadBackAsSpecified) {
    const std::string path = dir / "Pavix-a.mp4";
    const mode_t oldMask = umask(0);  // the file is private whatever the umask
    CaptureWriter writer(path, encodingOf(1280, 720), std::make_unique<FfmpegVideoEncoder>());
    umask(oldMask);
    int firstFrames = 0;
    writer.setOnFirstFrame([&] { ++firstFrames; });
    for (int i = 0; i < 180; ++i) {
        VideoFrame idle;
        idle = movingFrame(16, 16, 0, kT0 + i * kFrameNs - 1);
        idle.complete = false;
        writer.append(idle);  // never written
        appendAndWait(writer, movingFrame(1280, 720, i, kT0 + i * kFrameNs));
    }
    writer.finish(kT0 + 180 * kFrameNs);
    EXPECT_EQ(firstFrames, 1);
    EXPECT_EQ(writer.counters().framesAppended, 180);
    EXPECT_EQ(writer.counters().framesIncomplete, 180);

    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    auto info = MediaProbe::read(path, {true, 180});
    ASSERT_TRUE(info);
    EXPECT_EQ(info->width, 1280);
    EXPECT_EQ(info->height, 720);
    EXPECT_EQ(info->codec, "h264");
    EXPECT_EQ(info->profile, "High");
    EXPECT_FALSE(info->hasBFrames);
    EXPECT_EQ(info->frameCount, 180);
    ASSERT_TRUE(info->durationSeconds);
    EXPECT_NEAR(*info->durationSeconds, 3.0, 0.02);
    EXPECT_NEAR(info->firstFrameSeconds, 0.0, 0.001);
    EXPECT_EQ(info->colorPrimaries, "bt709");
    EXPECT_EQ(info->colorTransfer, "bt709");
    EXPECT_EQ(info->colorSpace, "bt709");
    EXPECT_EQ(info->colorRange, "tv");
    // Key frames every 2 s of time (fragments end there).
    ASSERT_EQ(info->keyFrameSeconds.size(), 2u);
    EXPECT_NEAR(info->keyFrameSeconds[0], 0.0, 1e-6);
    EXPECT_NEAR(info->keyFrameSeconds[1], 2.0, 1e-4);
    EXPECT_LE(info->maxKeyFrameIntervalSeconds, 2.0 + 1e-4);
    // The average bit rate is in the neighbourhood of the target (2,778,000).
    EXPECT_GT(info->bitRate, 500'000);
    EXPECT_LT(info->bitRate, 8'000'000);

    // A clean finish leaves a regular MP4 with its index first, and no temporary file.
    auto boxes = topLevelBoxes(path);
    ASSERT_GE(boxes.size(), 3u);
    EXPECT_EQ(boxes[0], "ftyp");
    EXPECT_EQ(boxes[1], "moov");
    EXPECT_EQ(std::count(boxes.begin(), boxes.end(), "moof"), 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);
}

TEST_F(FfmpegVideoEncoderTest, StaticContentEndsAtTheStopTimeAndKeyFramesFollowTime) {
    const std::string path = dir / "Pavix-b.mp4";
    auto writer = writerFor(path);
    // Half a second of frames, three seconds without a change, then a few irregular frames.
    appendMoving(*writer, 0, 30);
    for (int k = 0; k < 5; ++k) {
        appendAndWait(*writer, movingFrame(640, 360, 30 + k, kT0 + 3'500'000'000 + k * 23'000'000));
    }
    writer->finish(kT0 + 6'000'000'000);

    auto info = MediaProbe::read(path);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->frameCount, 35);
    ASSERT_TRUE(info->durationSeconds);
    EXPECT_NEAR(*info->durationSeconds, 6.0, 0.02);
    // The first frame after the pause starts a new group of pictures: key frames follow time,
    // not the frame count.
    ASSERT_EQ(info->keyFrameSeconds.size(), 2u);
    EXPECT_NEAR(info->keyFrameSeconds[1], 3.5, 1e-4);
    EXPECT_NEAR(info->lastFrameSeconds, 3.5 + 4 * 0.023, 0.001);
}

TEST_F(FfmpegVideoEncoderTest, FramesOfAnotherSizeAreScaledToFit) {
    const std::string path = dir / "Pavix-c.mp4";
    auto writer = writerFor(path);
    appendAndWait(*writer, movingFrame(640, 360, 0, kT0));
    appendAndWait(*writer, movingFrame(500, 500, 1, kT0 + kFrameNs));
    appendAndWait(*writer, movingFrame(1281, 721, 2, kT0 + 2 * kFrameNs));
    appendAndWait(*writer, movingFrame(3, 2, 3, kT0 + 3 * kFrameNs));
    writer->finish(kT0 + 4 * kFrameNs);
    EXPECT_EQ(writer->counters().framesAppended, 4);
    auto info = MediaProbe::read(path);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->width, 640);
    EXPECT_EQ(info->height, 360);
    EXPECT_EQ(info->frameCount, 4);
}

// Pictures the capture already converted to 4:2:0 are encoded as they come: a file of solid
// red ones decodes to red's BT.709 limited-range values, in the right planes.
TEST_F(FfmpegVideoEncoderTest, FourTwoZeroPicturesAreEncodedAsTheyCome) {
    const std::string path = dir / "Pavix-d.mp4";
    constexpr int width = 640, height = 360, stride = 704;  // padded rows
    auto pixels = std::make_shared<std::vector<std::uint8_t>>(std::size_t(stride) * height * 3 / 2);
    std::fill_n(pixels->begin(), stride * height, 63);                                     // Y
    std::fill_n(pixels->begin() + stride * height, stride / 2 * height / 2, 102);          // Cb
    std::fill_n(pixels->begin() + stride * height * 5 / 4, stride / 2 * height / 2, 240);  // Cr
    auto writer = writerFor(path);
    for (int i = 0; i < 30; ++i) {
        VideoFrame frame;
        frame.layout = PixelLayout::i420;
        frame.width = width;
        frame.height = height;
        frame.stride = stride;
        frame.pixels = pixels;
        frame.captureTimeNs = kT0 + i * kFrameNs;
        appendAndWait(*writer, frame);
    }
    writer->finish(kT0 + 30 * kFrameNs);
    EXPECT_EQ(writer->counters().framesAppended, 30);

    // The first picture, decoded by the ffmpeg tool into raw 4:2:0.
    const std::string command =
        "ffmpeg -v error -i '" + path + "' -frames:v 1 -f rawvideo -pix_fmt yuv420p -";
    FILE* decoder = popen(command.c_str(), "r");
    ASSERT_NE(decoder, nullptr);
    std::vector<std::uint8_t> raw(std::size_t(width) * height * 3 / 2);
    const std::size_t got = std::fread(raw.data(), 1, raw.size(), decoder);
    pclose(decoder);
    ASSERT_EQ(got, raw.size());
    const std::size_t centre = std::size_t(height / 2) * width + width / 2;
    const std::size_t chroma = std::size_t(height / 4) * (width / 2) + width / 4;
    EXPECT_NEAR(raw[centre], 63, 3);
    EXPECT_NEAR(raw[std::size_t(width) * height + chroma], 102, 3);
    EXPECT_NEAR(raw[std::size_t(width) * height * 5 / 4 + chroma], 240, 3);
}

TEST_F(FfmpegVideoEncoderTest, NeverOverwritesAnExistingFile) {
    const std::string path = dir / "Pavix-d.mp4";
    { std::ofstream(path) << "an earlier video"; }
    try {
        writerFor(path);
        FAIL() << "opened over an existing file";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EEXIST);
    }
    EXPECT_EQ(test::readBytes(path), "an earlier video");
}

TEST_F(FfmpegVideoEncoderTest, AKilledRecordingLeavesAPlayableFileUpToItsLastFragment) {
    const std::string path = dir / "Pavix-killed.mp4";
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The recording process: five seconds of content, then it hangs until killed.
        close(ready[0]);
        auto writer = writerFor(path);
        appendMoving(*writer, 0, 300);
        (void)!write(ready[1], "r", 1);
        for (;;)
            pause();
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    auto info = MediaProbe::read(path, {true, 300});
    ASSERT_TRUE(info);
    ASSERT_TRUE(info->durationSeconds);
    // Fragments end at key frames (every 2 s): the first four seconds survive.
    EXPECT_GT(*info->durationSeconds, 3.9);
    EXPECT_LE(*info->durationSeconds, 5.0);
    EXPECT_GE(info->frameCount, 240);
    EXPECT_EQ(info->width, 640);
    EXPECT_EQ(info->profile, "High");
    auto boxes = topLevelBoxes(path);
    EXPECT_GE(std::count(boxes.begin(), boxes.end(), "moof"), 2);
}

TEST_F(FfmpegVideoEncoderTest, CancelLeavesThePartialFileToTheCaller) {
    const std::string path = dir / "Pavix-e.mp4";
    auto writer = writerFor(path);
    appendMoving(*writer, 0, 10);
    writer->cancel();
    EXPECT_TRUE(fs::exists(path));
}

TEST(FfmpegEncoderProbe, AcceptsAnOrdinarySizeAndRequiresHardwareOnlyWithVaapi) {
    FfmpegEncoderProbe probe;
    auto candidates = CaptureEncoding::candidates(2560, 1440, 1.0);
    ASSERT_EQ(candidates.size(), 3u);
    ASSERT_TRUE(candidates[0].requiresHardware);
    EXPECT_TRUE(CaptureWriter::canEncode(candidates[1], std::nullopt, probe));
    EXPECT_TRUE(CaptureWriter::canEncode(candidates[2], std::nullopt, probe));
    EXPECT_FALSE(CaptureWriter::canEncode(candidates[1], 1280, probe));  // the user's cap

    const bool vaapi = fs::exists("/dev/dri/renderD128");
    if (!vaapi) {
        // No hardware encoder here: the largest size is refused and the choice falls back.
        EXPECT_FALSE(CaptureWriter::canEncode(candidates[0], std::nullopt, probe));
        auto chosen = CaptureEncoding::choose(candidates, [&](const CaptureEncoding& e) {
            return CaptureWriter::canEncode(e, std::nullopt, probe);
        });
        ASSERT_TRUE(chosen);
        EXPECT_EQ(chosen->size, (CaptureGeometry{1920, 1080}));
    }
    VideoEncoderSettings odd = CaptureWriter::settings(candidates[2]);
    odd.width = 1279;
    EXPECT_FALSE(probe.canOpen(odd));
}

}  // namespace
}  // namespace pavix
