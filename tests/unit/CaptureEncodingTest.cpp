#include "core/capture/CaptureEncoding.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

#include "core/capture/CaptureWriter.h"
#include "support/FakeVideoEncoder.h"

namespace pavix {
namespace {

CaptureEncoding enc(std::int64_t w, std::int64_t h, std::int64_t bitrate, bool hardware) {
    return CaptureEncoding{CaptureGeometry{w, h}, bitrate, hardware};
}

TEST(CaptureGeometry, ShrinksToTheSmallerRatioNeverEnlargesAndRoundsDownToEven) {
    // Sizes under the default cap, the candidates' first, are checked with the candidates.
    EXPECT_EQ(CaptureGeometry::make(50000, 10, 1.0), std::nullopt);  // height shrinks below 2
    EXPECT_EQ(CaptureGeometry::make(5000, 10, 1.0), (CaptureGeometry{2560, 4}));
    EXPECT_EQ(CaptureGeometry::make(3840, 1080, 1.0, 1920, 1080), (CaptureGeometry{1920, 540}));
}

TEST(CaptureGeometry, RefusesInputsThatAreNotFiniteAndPositiveAndSoDoTheCandidates) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    for (double bad : {0.0, -1.0, nan, inf}) {
        EXPECT_EQ(CaptureGeometry::make(bad, 600), std::nullopt) << bad;
        EXPECT_EQ(CaptureGeometry::make(800, bad), std::nullopt) << bad;
        EXPECT_EQ(CaptureGeometry::make(800, 600, bad), std::nullopt) << bad;
        EXPECT_TRUE(CaptureEncoding::candidates(bad, 600, 1).empty()) << bad;
        EXPECT_TRUE(CaptureEncoding::candidates(800, bad, 1).empty()) << bad;
        EXPECT_TRUE(CaptureEncoding::candidates(800, 600, bad).empty()) << bad;
    }
    // A finite size whose pixel size overflows.
    EXPECT_EQ(CaptureGeometry::make(1e308, 600, 1e10), std::nullopt);
}

TEST(CaptureEncoding, BitRateReferencePointsIncludingTheDeliberateStepAt921600Pixels) {
    EXPECT_EQ(CaptureEncoding::bitrateFor(2560, 1440), 6'000'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1920, 1080), 4'000'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1440, 900), 2'500'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1280, 720), 2'778'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1280, 722), 1'783'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(640, 480), 978'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(2, 2), 1'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1000, 600), 1'848'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(2073601, 1), 3'375'000);  // top tier
}

// One candidate a cap (2560×1440, 1920×1080, 1280×720), largest first, none twice and none
// enlarged; a size needs the hardware encoder only above the pixels of 1920×1080.
TEST(CaptureEncoding, CandidatesAreTheSourceUnderEachCapLargestFirstWithoutDuplicates) {
    struct Case {
        const char* name;
        std::array<double, 3> source;  // width, height, pixel scale
        std::vector<CaptureEncoding> expected;
    };
    for (const auto& c : std::vector<Case>{
             {"a Retina display",
              {1512, 982, 2.0},
              {enc(2216, 1440, 5'194'000, true), enc(1662, 1080, 3'463'000, false),
               enc(1108, 720, 2'422'000, false)}},
             {"small", {900, 600, 1.0}, {enc(900, 600, 1'672'000, false)}},
             {"odd", {1001, 601, 1.0}, {enc(1000, 600, 1'848'000, false)}},
             {"the smallest", {3, 3, 1.0}, {enc(2, 2, 1'000, false)}},
             {"too small", {1, 1, 1.0}, {}},
             {"the same size under two caps",
              {1600, 900, 1.0},
              {enc(1600, 900, 2'778'000, false), enc(1280, 720, 2'778'000, false)}},
             {"exactly full HD",
              {1920, 1080, 1.0},
              {enc(1920, 1080, 4'000'000, false), enc(1280, 720, 2'778'000, false)}},
             {"two columns more than full HD",
              {1922, 1080, 1.0},
              {enc(1922, 1080, 3'379'000, true), enc(1920, 1078, 3'993'000, false),
               enc(1280, 718, 2'770'000, false)}},
             {"below 2 rows under every cap", {2073601, 1, 1.0}, {}},
         }) {
        const auto [width, height, scale] = c.source;
        EXPECT_EQ(CaptureEncoding::candidates(width, height, scale), c.expected) << c.name;
    }
}

TEST(CaptureEncoding, ChooseTakesTheFirstAcceptedInOrder) {
    auto candidates = CaptureEncoding::candidates(1512, 982, 2.0);
    std::vector<std::int64_t> asked;
    auto chosen = CaptureEncoding::choose(candidates, [&](const CaptureEncoding& e) {
        asked.push_back(e.size.width);
        return !e.requiresHardware;
    });
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->size, (CaptureGeometry{1662, 1080}));
    EXPECT_EQ(asked, (std::vector<std::int64_t>{2216, 1662}));
    EXPECT_EQ(CaptureEncoding::choose(candidates, [](const auto&) { return false; }), std::nullopt);
    EXPECT_EQ(CaptureEncoding::choose({}, [](const auto&) { return true; }), std::nullopt);
}

TEST(CaptureWriterCanEncode, UserCapIsReadFirstAndSparesTheEncoder) {
    testing::FakeEncoderProbe probe;
    auto candidates = CaptureEncoding::candidates(1512, 982, 2.0);

    // "captureMaxWidth" = 1920 refuses the 2216-wide candidate without asking the encoder.
    EXPECT_FALSE(CaptureWriter::canEncode(candidates[0], 1920, probe));
    EXPECT_TRUE(probe.asked.empty());
    EXPECT_TRUE(CaptureWriter::canEncode(candidates[1], 1920, probe));
    EXPECT_TRUE(CaptureWriter::canEncode(candidates[1], 1662, probe));  // equal is allowed
    EXPECT_EQ(probe.asked.size(), 2u);

    // Absent: the encoder decides, with the encoding's real settings.
    probe.asked.clear();
    probe.rule = [](const VideoEncoderSettings& s) { return !s.requiresHardware; };
    EXPECT_FALSE(CaptureWriter::canEncode(candidates[0], std::nullopt, probe));
    ASSERT_EQ(probe.asked.size(), 1u);
    const auto& s = probe.asked[0];
    EXPECT_EQ(s.width, 2216);
    EXPECT_EQ(s.height, 1440);
    EXPECT_EQ(s.bitrate, 5'194'000);
    EXPECT_EQ(s.frameRate, 60);
    EXPECT_EQ(s.maxKeyFrameIntervalNs, 2'000'000'000);
    EXPECT_TRUE(s.requiresHardware);
}

}  // namespace
}  // namespace pavix
