#include "linux/MediaProbe.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace pavix {
namespace {

namespace fs = std::filesystem;

class MediaProbeTest : public ::testing::Test {
  protected:
    fs::path dir;
    void SetUp() override {
        char pattern[] = "/tmp/pavix-probe-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override { fs::remove_all(dir); }

    // A reference file made by the ffmpeg tool, independent of our encoder.
    std::string make(const std::string& name, const std::string& encoderArgs) {
        const std::string path = dir / name;
        const std::string command =
            "ffmpeg -nostdin -loglevel error -f lavfi -i testsrc2=size=320x240:rate=30 -t 2 " +
            encoderArgs + " '" + path + "'";
        if (std::system(command.c_str()) != 0)
            return "";
        return path;
    }
};

TEST_F(MediaProbeTest, SeesBFramesProfileAndColourTagsOfAReferenceFile) {
    const auto path = make("b.mp4",
                           "-c:v libx264 -profile:v main -bf 3 -pix_fmt yuv420p "
                           "-color_primaries bt470bg -color_trc smpte170m -colorspace bt470bg");
    if (path.empty())
        GTEST_SKIP() << "the ffmpeg tool is not available";
    auto info = MediaProbe::read(path, {true, 60});
    ASSERT_TRUE(info);
    EXPECT_TRUE(info->hasBFrames);
    EXPECT_EQ(info->profile, "Main");
    EXPECT_EQ(info->codec, "h264");
    EXPECT_EQ(info->width, 320);
    EXPECT_EQ(info->height, 240);
    EXPECT_EQ(info->frameCount, 60);
    ASSERT_TRUE(info->durationSeconds);
    EXPECT_NEAR(*info->durationSeconds, 2.0, 0.05);
    EXPECT_EQ(info->colorPrimaries, "bt470bg");
    EXPECT_EQ(info->colorSpace, "bt470bg");
    EXPECT_EQ(MediaProbe::duration(path).value_or(0), *info->durationSeconds);
}

TEST_F(MediaProbeTest, NothingForAFileThatIsNotAVideo) {
    const std::string path = dir / "not-a-video.mp4";
    std::ofstream(path) << "hello";
    EXPECT_FALSE(MediaProbe::read(path));
    EXPECT_FALSE(MediaProbe::duration(path));
    EXPECT_FALSE(MediaProbe::duration(dir / "missing.mp4"));
}

}  // namespace
}  // namespace pavix
