// Recordings written with the real encoder and read back with FFmpeg, and their colours.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include "IntegrationSupport.h"
#include "core/capture/CaptureWriter.h"
#include "linux/BilinearReducer.h"
#include "linux/FfmpegColourConversion.h"
#include "linux/FfmpegEncoderProbe.h"
#include "linux/FfmpegVideoEncoder.h"
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
    return VideoFrame{width, height, width * 4, std::move(pixels), timeNs};
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

// Hands `count` moving 640×360 frames, a 60th of a second apart from `first`, to the writer.
void appendMoving(CaptureWriter& writer, int first, int count) {
    for (int i = first; i < first + count; ++i) {
        appendAndWait(writer, movingFrame(640, 360, i, kT0 + i * kFrameNs));
    }
}

// Top-level MP4 box types in file order.
std::vector<std::string> topLevelBoxes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> boxes;
    unsigned char h[16];
    while (in.read(reinterpret_cast<char*>(h), 8)) {
        std::uint64_t size = (std::uint64_t(h[0]) << 24) | (h[1] << 16) | (h[2] << 8) | h[3];
        boxes.emplace_back(reinterpret_cast<char*>(h + 4), 4);
        std::uint64_t headerSize = 8;
        if (size == 1 && in.read(reinterpret_cast<char*>(h + 8), 8)) {
            size = 0;
            for (int i = 8; i < 16; ++i) {
                size = (size << 8) | h[i];
            }
            headerSize = 16;
        }
        if (size < headerSize) {
            break;  // 0: to the end of the file
        }
        in.seekg(std::streamoff(size - headerSize), std::ios::cur);
    }
    return boxes;
}

class FfmpegVideoEncoderTest : public ::testing::Test {
  protected:
    // A 640×360 recording into `name` with the real encoder.
    std::unique_ptr<CaptureWriter> writerFor(const std::string& name, int width = 640,
                                             int height = 360,
                                             EncoderEffort effort = EncoderEffort::full) {
        return std::make_unique<CaptureWriter>(
            path(name),
            CaptureEncoding{CaptureGeometry{width, height},
                            CaptureEncoding::bitrateFor(width, height), false, effort},
            std::make_unique<FfmpegVideoEncoder>());
    }
    std::string path(const std::string& name) const { return dir / name; }
    test::ScratchFolder dir{"writer"};
};

// At either effort the file keeps every rule.
class FfmpegVideoEncoderEffortTest : public FfmpegVideoEncoderTest,
                                     public ::testing::WithParamInterface<EncoderEffort> {};

TEST_P(FfmpegVideoEncoderEffortTest, ThreeSecondsOfMovingContentReadBackAsSpecified) {
    const mode_t oldMask = umask(0);  // the file is private whatever the umask
    auto writer = writerFor("Pavix-a.mp4", 1280, 720, GetParam());
    umask(oldMask);
    int firstFrames = 0;
    writer->setOnFirstFrame([&] { ++firstFrames; });
    for (int i = 0; i < 180; ++i) {
        VideoFrame idle = movingFrame(16, 16, 0, kT0 + i * kFrameNs - 1);
        idle.complete = false;
        writer->append(idle);  // never written
        appendAndWait(*writer, movingFrame(1280, 720, i, kT0 + i * kFrameNs));
    }
    writer->finish(kT0 + 180 * kFrameNs);
    EXPECT_EQ(firstFrames, 1);
    EXPECT_EQ(writer->counters().framesAppended, 180);
    EXPECT_EQ(writer->counters().framesIncomplete, 180);
    EXPECT_EQ(test::modeOf(path("Pavix-a.mp4")), 0600u);
    auto info = MediaProbe::read(path("Pavix-a.mp4"), {true, 180});
    ASSERT_TRUE(info);
    EXPECT_EQ(std::tie(info->width, info->height, info->codec, info->profile, info->hasBFrames,
                       info->frameCount),
              std::make_tuple(1280, 720, "h264", "High", false, 180));
    ASSERT_TRUE(info->durationSeconds);
    EXPECT_NEAR(*info->durationSeconds, 3.0, 0.02);
    EXPECT_NEAR(info->firstFrameSeconds, 0.0, 0.001);
    EXPECT_EQ(
        std::tie(info->colorPrimaries, info->colorTransfer, info->colorSpace, info->colorRange),
        std::make_tuple("bt709", "bt709", "bt709", "tv"));
    // Key frames every 2 s of time (fragments end there).
    ASSERT_EQ(info->keyFrameSeconds.size(), 2u);
    EXPECT_NEAR(info->keyFrameSeconds[0], 0.0, 1e-6);
    EXPECT_NEAR(info->keyFrameSeconds[1], 2.0, 1e-4);
    EXPECT_LE(info->maxKeyFrameIntervalSeconds, 2.0 + 1e-4);
    // The average bit rate is in the neighbourhood of the target (2,778,000).
    EXPECT_GT(info->bitRate, 500'000);
    EXPECT_LT(info->bitRate, 8'000'000);
    // A clean finish leaves a regular MP4 with its index first, and no temporary file.
    auto boxes = topLevelBoxes(path("Pavix-a.mp4"));
    ASSERT_GE(boxes.size(), 3u);
    EXPECT_EQ(boxes[0], "ftyp");
    EXPECT_EQ(boxes[1], "moov");
    EXPECT_EQ(std::count(boxes.begin(), boxes.end(), "moof"), 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
    // libx264 writes its options into the stream: the effort reached the encoder ("veryfast"
    // searches with subme=2, "superfast" with subme=1).
    EXPECT_NE(test::readBytes(path("Pavix-a.mp4"))
                  .find(GetParam() == EncoderEffort::full ? " subme=2 " : " subme=1 "),
              std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Effort, FfmpegVideoEncoderEffortTest,
                         ::testing::Values(EncoderEffort::full, EncoderEffort::reduced),
                         [](const auto& info) {
                             return info.param == EncoderEffort::full ? "Full" : "Reduced";
                         });

TEST_F(FfmpegVideoEncoderTest, StaticContentEndsAtTheStopTimeAndKeyFramesFollowTime) {
    auto writer = writerFor("Pavix-b.mp4");
    // Half a second of frames, three seconds without a change, then a few irregular frames.
    appendMoving(*writer, 0, 30);
    for (int k = 0; k < 5; ++k) {
        appendAndWait(*writer, movingFrame(640, 360, 30 + k, kT0 + 3'500'000'000 + k * 23'000'000));
    }
    writer->finish(kT0 + 6'000'000'000);
    auto info = MediaProbe::read(path("Pavix-b.mp4"));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->frameCount, 35);
    ASSERT_TRUE(info->durationSeconds);
    EXPECT_NEAR(*info->durationSeconds, 6.0, 0.02);
    // The first frame after the pause starts a new group of pictures.
    ASSERT_EQ(info->keyFrameSeconds.size(), 2u);
    EXPECT_NEAR(info->keyFrameSeconds[1], 3.5, 1e-4);
    EXPECT_NEAR(info->lastFrameSeconds, 3.5 + 4 * 0.023, 0.001);
}

TEST_F(FfmpegVideoEncoderTest, FramesOfAnotherSizeAreScaledToFit) {
    auto writer = writerFor("Pavix-c.mp4");
    const std::pair<int, int> sizes[] = {{640, 360}, {500, 500}, {1281, 721}, {3, 2}};
    for (int i = 0; i < 4; ++i) {
        appendAndWait(*writer, movingFrame(sizes[i].first, sizes[i].second, i, kT0 + i * kFrameNs));
    }
    writer->finish(kT0 + 4 * kFrameNs);
    EXPECT_EQ(writer->counters().framesAppended, 4);
    auto info = MediaProbe::read(path("Pavix-c.mp4"));
    ASSERT_TRUE(info);
    EXPECT_EQ(std::tie(info->width, info->height, info->frameCount), std::make_tuple(640, 360, 4));
}

// 4:2:0 pictures are encoded as they come: solid red decodes to its BT.709 values.
TEST_F(FfmpegVideoEncoderTest, FourTwoZeroPicturesAreEncodedAsTheyCome) {
    constexpr int width = 640, height = 360, stride = 704;  // padded rows
    auto pixels = std::make_shared<std::vector<std::uint8_t>>(std::size_t(stride) * height * 3 / 2);
    std::fill_n(pixels->begin(), stride * height, 63);                                     // Y
    std::fill_n(pixels->begin() + stride * height, stride / 2 * height / 2, 102);          // Cb
    std::fill_n(pixels->begin() + stride * height * 5 / 4, stride / 2 * height / 2, 240);  // Cr
    auto writer = writerFor("Pavix-d.mp4");
    for (int i = 0; i < 30; ++i) {
        VideoFrame frame{width, height, stride, pixels, kT0 + i * kFrameNs};
        frame.layout = PixelLayout::i420;
        appendAndWait(*writer, frame);
    }
    writer->finish(kT0 + 30 * kFrameNs);
    EXPECT_EQ(writer->counters().framesAppended, 30);
    const auto raw = test::lastPicture(path("Pavix-d.mp4"), width * height * 3 / 2, "yuv420p");
    ASSERT_FALSE(raw.empty());
    const std::size_t centre = std::size_t(height / 2) * width + width / 2;
    const std::size_t chroma = std::size_t(height / 4) * (width / 2) + width / 4;
    EXPECT_NEAR(raw[centre], 63, 3);
    EXPECT_NEAR(raw[std::size_t(width) * height + chroma], 102, 3);
    EXPECT_NEAR(raw[std::size_t(width) * height * 5 / 4 + chroma], 240, 3);
}

TEST_F(FfmpegVideoEncoderTest, NeverOverwritesAnExistingFileAndCancelLeavesItsOwnToTheCaller) {
    std::ofstream(path("Pavix-d.mp4")) << "an earlier video";
    EXPECT_THAT([&] { writerFor("Pavix-d.mp4"); },
                ::testing::Throws<std::system_error>(::testing::Property(
                    &std::system_error::code, std::make_error_condition(std::errc::file_exists))));
    EXPECT_EQ(test::readBytes(path("Pavix-d.mp4")), "an earlier video");
    auto writer = writerFor("Pavix-e.mp4");
    appendMoving(*writer, 0, 10);
    writer->cancel();
    EXPECT_TRUE(fs::exists(path("Pavix-e.mp4")));
}

TEST_F(FfmpegVideoEncoderTest, AKilledRecordingLeavesAPlayableFileUpToItsLastFragment) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The recording process: five seconds of content, then it hangs until killed.
        close(ready[0]);
        auto writer = writerFor("Pavix-killed.mp4");
        appendMoving(*writer, 0, 300);
        (void)!write(ready[1], "r", 1);
        for (;;) {
            pause();
        }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(test::modeOf(path("Pavix-killed.mp4")), 0600u);
    auto info = MediaProbe::read(path("Pavix-killed.mp4"), {true, 300});
    ASSERT_TRUE(info);
    ASSERT_TRUE(info->durationSeconds);
    // Fragments end at key frames (every 2 s): the first four seconds survive.
    EXPECT_GT(*info->durationSeconds, 3.9);
    EXPECT_LE(*info->durationSeconds, 5.0);
    EXPECT_GE(info->frameCount, 240);
    EXPECT_EQ(info->width, 640);
    EXPECT_EQ(info->profile, "High");
    auto boxes = topLevelBoxes(path("Pavix-killed.mp4"));
    EXPECT_GE(std::count(boxes.begin(), boxes.end(), "moof"), 2);
}

TEST(FfmpegEncoderProbe, AcceptsAnOrdinarySizeAndRequiresHardwareOnlyWithVaapi) {
    FfmpegEncoderProbe probe;
    auto candidates = CaptureEncoding::candidates(2560, 1440, 1.0);
    ASSERT_EQ(candidates.size(), 3u);
    ASSERT_TRUE(candidates[0].requiresHardware);
    EXPECT_TRUE(CaptureWriter::canEncode(candidates[1], std::nullopt, probe));
    EXPECT_TRUE(CaptureWriter::canEncode(candidates[2], std::nullopt, probe));
    EXPECT_FALSE(CaptureWriter::canEncode(candidates[1], 1280, probe));  // the user's cap
    if (!fs::exists("/dev/dri/renderD128")) {
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

    // The cost of a frame: measured once per effort, then scaled by the pixel count; nothing
    // for a size that needs hardware.
    EXPECT_EQ(probe.cpuSecondsPerFrame(CaptureWriter::settings(candidates[0])), std::nullopt);
    for (auto effort : {EncoderEffort::full, EncoderEffort::reduced}) {
        auto large = CaptureWriter::settings(candidates[1]),
             small = CaptureWriter::settings(candidates[2]);
        large.effort = small.effort = effort;
        const auto perLarge = probe.cpuSecondsPerFrame(large);
        ASSERT_TRUE(perLarge);
        EXPECT_GT(*perLarge, 0);
        EXPECT_LT(*perLarge, 1.0);  // CPU seconds for one frame, not milliseconds
        EXPECT_NEAR(*probe.cpuSecondsPerFrame(small) / *perLarge, 1280.0 * 720 / (1920 * 1080),
                    1e-9);
    }
}

// The record keeps the cheapest of the last measurements of this machine, per effort, and
// shrugs off whatever it finds in its file.
TEST(EncoderCostRecord, TheCheapestOfTheLastMeasurementsOfThisMachineCounts) {
    test::ScratchFolder dir("cost");
    const auto file = dir / "state" / "encoder-cost.json";  // its folder is made on first use
    const auto full = EncoderEffort::full, reduced = EncoderEffort::reduced;
    EncoderCostRecord record(file, "machine A");
    EXPECT_EQ(record.measurements(full), 0u);
    EXPECT_DOUBLE_EQ(record.add(full, 3e-8), 3e-8);
    EXPECT_DOUBLE_EQ(record.add(full, 5e-8), 3e-8);
    EXPECT_DOUBLE_EQ(record.add(reduced, 2e-8), 2e-8);  // each effort on its own
    // Only the last few count: the cheap one ages out.
    for (std::size_t i = 2; i < EncoderCostRecord::kept; ++i) {
        EXPECT_DOUBLE_EQ(record.add(full, 4e-8), 3e-8);
    }
    EXPECT_DOUBLE_EQ(record.add(full, 4e-8), 4e-8);
    EXPECT_EQ(record.measurements(full), EncoderCostRecord::kept);
    EXPECT_EQ(record.measurements(reduced), 1u);
    EXPECT_EQ(EncoderCostRecord(file, "machine B").measurements(full), 0u);
    EXPECT_DOUBLE_EQ(EncoderCostRecord(file, "machine A").add(reduced, 9e-8), 2e-8);
    EXPECT_DOUBLE_EQ(EncoderCostRecord(file, "machine B").add(reduced, 9e-8), 9e-8);
    EXPECT_EQ(fs::exists(dir / "state" / "encoder-cost.json.tmp"), false);

    const std::vector<std::string> damaged = {
        "",
        "not json",
        "[1e-8]",
        R"({"machine": 7, "full": [1e-9]})",
        R"({"machine": "machine A", "full": "1e-9", "reduced": {"a": 1e-9}})",
        R"({"machine": "machine A", "full": [-1e-9, 0, 5, "1e-9", null, 1e300]})",
    };
    for (const auto& text : damaged) {
        std::ofstream(file, std::ios::trunc) << text;
        EncoderCostRecord again(file, "machine A");
        EXPECT_DOUBLE_EQ(again.add(full, 6e-8), 6e-8) << text;
        EXPECT_DOUBLE_EQ(again.add(full, 7e-8), 6e-8) << text;  // and the file is whole again
    }
    // A record that cannot be written still answers with this run's figure.
    std::ofstream(dir / "a-file") << "x";
    EXPECT_DOUBLE_EQ(EncoderCostRecord(dir / "a-file" / "cost.json", "machine A").add(full, 8e-8),
                     8e-8);
    EXPECT_NE(EncoderCostRecord::thisMachine().find(" x"), std::string::npos);
}

// Two runs with the same record: the second never judges the encoder dearer than the first.
TEST(EncoderCostRecord, ASecondRunUsesTheCheaperOfItsOwnAndTheFirstRunsMeasurement) {
    test::ScratchFolder dir("cost-runs");
    auto settings = CaptureWriter::settings(CaptureEncoding::candidates(1280, 720, 1.0).back());
    settings.effort = EncoderEffort::reduced;
    const auto first =
        FfmpegEncoderProbe(EncoderCostRecord(dir / "cost.json")).cpuSecondsPerFrame(settings);
    const auto second =
        FfmpegEncoderProbe(EncoderCostRecord(dir / "cost.json")).cpuSecondsPerFrame(settings);
    ASSERT_TRUE(first && second);
    EXPECT_LE(*second, *first);
    EXPECT_THAT(test::readBytes(dir / "cost.json"),
                ::testing::HasSubstr(EncoderCostRecord::thisMachine()));
}

// A reference file made by the ffmpeg tool, independent of our encoder, and a non-video.
TEST(MediaProbe, SeesBFramesProfileAndColourTagsOfAReferenceFileAndNothingInOthers) {
    test::ScratchFolder dir("probe");
    const std::string path = dir / "b.mp4", text = dir / "not-a-video.mp4";
    ASSERT_EQ(std::system(("ffmpeg -nostdin -loglevel error -f lavfi -i "
                           "testsrc2=size=320x240:rate=30 -t 2 -c:v libx264 -profile:v main -bf 3 "
                           "-pix_fmt yuv420p -color_primaries bt470bg -color_trc smpte170m "
                           "-colorspace bt470bg '" +
                           path + "'")
                              .c_str()),
              0);
    auto info = MediaProbe::read(path, {true, 60});
    ASSERT_TRUE(info);
    EXPECT_EQ(std::tie(info->width, info->height, info->codec, info->profile, info->hasBFrames,
                       info->frameCount),
              std::make_tuple(320, 240, "h264", "Main", true, 60));
    ASSERT_TRUE(info->durationSeconds);
    EXPECT_NEAR(*info->durationSeconds, 2.0, 0.05);
    EXPECT_EQ(std::tie(info->colorPrimaries, info->colorSpace),
              std::make_tuple("bt470bg", "bt470bg"));
    EXPECT_EQ(MediaProbe::duration(path).value_or(0), *info->durationSeconds);
    std::ofstream(text) << "hello";
    EXPECT_FALSE(MediaProbe::read(text));
    EXPECT_FALSE(MediaProbe::duration(text));
    EXPECT_FALSE(MediaProbe::duration(dir / "missing.mp4"));
}

// BT.709 in limited range, computed in double precision: Y, Cb, Cr.
std::array<double, 3> bt709(double r, double g, double b) {
    const double kr = 0.2126, kb = 0.0722, luma = kr * r + (1 - kr - kb) * g + kb * b;
    return {16 + 219 * luma / 255, 128 + 224 * (b - luma) / (2 * (1 - kb)) / 255,
            128 + 224 * (r - luma) / (2 * (1 - kr)) / 255};
}

TEST(FfmpegColourConversion, MatchesBt709LimitedRangeWithinOneStep) {
    const int width = 66, height = 20, stride = width * 4 + 12;  // padded rows
    std::vector<std::uint8_t> bgra(std::size_t(stride) * height);
    std::mt19937 random(7);
    std::generate(bgra.begin(), bgra.end(), [&] { return std::uint8_t(random()); });
    auto at = [&](int x, int y) { return &bgra[std::size_t(y) * stride + x * 4]; };
    // Known colours in the first 2×2 blocks: black, white, pure red, pure blue.
    const std::uint8_t known[4][3] = {{0, 0, 0}, {255, 255, 255}, {0, 0, 255}, {255, 0, 0}};
    for (int k = 0; k < 16; ++k) {
        std::copy_n(known[k / 4], 3, at(k / 4 * 2 + k % 2, k % 4 / 2));
    }
    std::vector<std::uint8_t> y(width * height), u(width * height / 4), v(width * height / 4);
    ffmpeg::bgraToI420Bt709(bgra.data(), stride, width, height, y.data(), width, u.data(),
                            width / 2, v.data(), width / 2);
    std::vector<std::uint8_t> y2(width * height), uv(width * height / 2);
    ffmpeg::bgraToNv12Bt709(bgra.data(), stride, width, height, y2.data(), width, uv.data(), width);
    EXPECT_EQ(y, y2);
    int worst = 0;
    auto compare = [&](int got, double expected) {
        worst = std::max(worst, int(std::abs(got - expected) + 0.5));
    };
    for (int row = 0; row < height; ++row) {
        for (int x = 0; x < width; ++x) {
            compare(y[row * width + x], bt709(at(x, row)[2], at(x, row)[1], at(x, row)[0])[0]);
        }
    }
    for (int row = 0; row < height / 2; ++row) {
        for (int x = 0; x < width / 2; ++x) {
            double rgb[3] = {0, 0, 0};
            for (int corner = 0; corner < 4; ++corner) {
                const std::uint8_t* p = at(2 * x + corner % 2, 2 * row + corner / 2);
                for (int c = 0; c < 3; ++c) {
                    rgb[c] += p[2 - c] / 4.0;
                }
            }
            const auto expected = bt709(rgb[0], rgb[1], rgb[2]);
            const int i = row * (width / 2) + x;
            compare(u[i], expected[1]);
            compare(v[i], expected[2]);
            EXPECT_EQ(uv[2 * i], u[i]);
            EXPECT_EQ(uv[2 * i + 1], v[i]);
        }
    }
    EXPECT_LE(worst, 1);
    // The ends of the limited range, neutral grey chroma, the tops of Cr and Cb.
    EXPECT_EQ(y[0], 16);
    EXPECT_EQ(y[2], 235);
    EXPECT_EQ(std::vector<int>({u[0], v[0], u[1], v[1], v[2], u[3]}),
              std::vector<int>({128, 128, 128, 128, 240, 240}));
    // Rows go in blocks of 32 pixels, the rest one by one: the same picture from its third
    // column, 64 wide, has the last two columns inside a block, and they come out the same.
    std::vector<std::uint8_t> ys(64 * height), us(32 * height / 2), vs(32 * height / 2);
    ffmpeg::bgraToI420Bt709(at(2, 0), stride, 64, height, ys.data(), 64, us.data(), 32, vs.data(),
                            32);
    for (int row = 0; row < height; ++row) {
        EXPECT_TRUE(std::equal(ys.begin() + row * 64, ys.begin() + row * 64 + 64,
                               y.begin() + row * width + 2));
    }
    for (int row = 0; row < height / 2; ++row) {
        EXPECT_TRUE(std::equal(us.begin() + row * 32, us.begin() + row * 32 + 32,
                               u.begin() + row * (width / 2) + 1));
        EXPECT_TRUE(std::equal(vs.begin() + row * 32, vs.begin() + row * 32 + 32,
                               v.begin() + row * (width / 2) + 1));
    }
}

// Each reduced pixel against bilinear interpolation at its centre, in double precision, then
// converted: the weights are in 64ths, so a step of 255 between neighbours may be off by two.
TEST(BilinearReducer, BlendsTheFourSourcePixelsAroundEachCentre) {
    std::mt19937 random(11);
    BilinearReducer reducer;  // one reducer for all sizes: each new size is planned afresh
    for (auto [from, to] : std::vector<std::pair<std::array<int, 2>, std::array<int, 2>>>{
             {{300, 200}, {200, 150}},  // 1.5 and 4/3, as 1080p to 720p and 1440p to 1080p
             {{99, 37}, {66, 24}},      // odd source, a row's end past the last block of eight
             {{80, 9}, {80, 4}},        // across only
             {{300, 200}, {200, 150}},  // the first size again
         }) {
        const auto [sw, sh] = from;
        const auto [w, h] = to;
        SCOPED_TRACE(std::to_string(sw) + "x" + std::to_string(sh) + " to " + std::to_string(w));
        const int stride = sw * 4 + 8;
        std::vector<std::uint8_t> bgra(std::size_t(stride) * sh);
        std::generate(bgra.begin(), bgra.end(), [&] { return std::uint8_t(random()); });
        std::vector<std::uint8_t> y(w * h), u(w * h / 4), v(w * h / 4);
        reducer.toI420(bgra.data(), sw, sh, stride, w, h, y.data(), w, u.data(), v.data(), w / 2);
        // Channel c of the bilinear sample at target pixel (x, row).
        auto sample = [&](double x, double row, int c) {
            auto axis = [](double centre, int size) {
                const double at = std::clamp(centre, 0.0, size - 1.0);
                const int first = std::min(int(at), size - 2);
                return std::pair{first, at - first};
            };
            const auto [x0, fx] = axis((x + 0.5) * sw / w - 0.5, sw);
            const auto [y0, fy] = axis((row + 0.5) * sh / h - 0.5, sh);
            auto at = [&](int px, int py) { return bgra[std::size_t(py) * stride + px * 4 + c]; };
            return (1 - fy) * ((1 - fx) * at(x0, y0) + fx * at(x0 + 1, y0)) +
                   fy * ((1 - fx) * at(x0, y0 + 1) + fx * at(x0 + 1, y0 + 1));
        };
        int worst = 0;
        for (int row = 0; row < h; ++row) {
            for (int x = 0; x < w; ++x) {
                const double r = sample(x, row, 2), g = sample(x, row, 1), b = sample(x, row, 0);
                worst = std::max(worst, int(std::abs(y[row * w + x] - bt709(r, g, b)[0]) + 0.5));
            }
        }
        for (int row = 0; row < h / 2; ++row) {
            for (int x = 0; x < w / 2; ++x) {
                std::array<double, 3> rgb{};
                for (int corner = 0; corner < 4; ++corner) {
                    for (int c = 0; c < 3; ++c) {
                        rgb[c] += sample(2 * x + corner % 2, 2 * row + corner / 2, 2 - c) / 4;
                    }
                }
                const auto expected = bt709(rgb[0], rgb[1], rgb[2]);
                const int i = row * (w / 2) + x;
                worst = std::max(worst, int(std::abs(u[i] - expected[1]) + 0.5));
                worst = std::max(worst, int(std::abs(v[i] - expected[2]) + 0.5));
            }
        }
        EXPECT_LE(worst, 2);
    }
    // At the same size nothing is blended: the plain conversion, to the bit.
    const int size = 70;
    std::vector<std::uint8_t> bgra(size * size * 4);
    std::generate(bgra.begin(), bgra.end(), [&] { return std::uint8_t(random()); });
    std::vector<std::uint8_t> planes(size * size * 3 / 2), plain(planes.size());
    auto into = [&](std::vector<std::uint8_t>& p) {
        return std::tuple{p.data(), p.data() + size * size, p.data() + size * size * 5 / 4};
    };
    const auto [y, u, v] = into(planes);
    reducer.toI420(bgra.data(), size, size, size * 4, size, size, y, size, u, v, size / 2);
    const auto [py, pu, pv] = into(plain);
    ffmpeg::bgraToI420Bt709(bgra.data(), size * 4, size, size, py, size, pu, size / 2, pv,
                            size / 2);
    EXPECT_EQ(planes, plain);
}

}  // namespace
}  // namespace pavix
