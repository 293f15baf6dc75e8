#include "linux/FfmpegColourConversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

namespace pavix {
namespace {

// BT.709 in limited range, computed in double precision.
struct Ycc {
    double y, cb, cr;
};
Ycc reference(double r, double g, double b) {
    const double kr = 0.2126, kb = 0.0722, kg = 1 - kr - kb;
    const double luma = kr * r + kg * g + kb * b;  // 0..255
    return {16 + 219 * luma / 255, 128 + 224 * (b - luma) / (2 * (1 - kb)) / 255,
            128 + 224 * (r - luma) / (2 * (1 - kr)) / 255};
}

TEST(FfmpegColourConversion, MatchesBt709LimitedRangeWithinOneStep) {
    const int width = 66, height = 20, stride = width * 4 + 12;  // padded rows
    std::vector<std::uint8_t> bgra(std::size_t(stride) * height);
    std::mt19937 random(7);
    for (auto& byte : bgra)
        byte = std::uint8_t(random());
    // Known colours in the first 2×2 blocks: black, white, pure red, pure blue.
    const std::uint8_t known[4][3] = {{0, 0, 0}, {255, 255, 255}, {0, 0, 255}, {255, 0, 0}};
    for (int k = 0; k < 4; ++k) {
        for (int dy = 0; dy < 2; ++dy) {
            for (int dx = 0; dx < 2; ++dx) {
                std::uint8_t* p = &bgra[std::size_t(dy) * stride + (2 * k + dx) * 4];
                p[0] = known[k][0], p[1] = known[k][1], p[2] = known[k][2];
            }
        }
    }

    std::vector<std::uint8_t> y(width * height), u(width * height / 4), v(width * height / 4);
    ffmpeg::bgraToI420Bt709(bgra.data(), stride, width, height, y.data(), width, u.data(),
                            width / 2, v.data(), width / 2);
    std::vector<std::uint8_t> y2(width * height), uv(width * height / 2);
    ffmpeg::bgraToNv12Bt709(bgra.data(), stride, width, height, y2.data(), width, uv.data(), width);
    EXPECT_EQ(y, y2);

    int worst = 0;
    for (int row = 0; row < height; ++row) {
        for (int x = 0; x < width; ++x) {
            const std::uint8_t* p = &bgra[std::size_t(row) * stride + x * 4];
            const double expected = reference(p[2], p[1], p[0]).y;
            worst = std::max(worst, int(std::abs(y[row * width + x] - expected) + 0.5));
        }
    }
    for (int row = 0; row < height / 2; ++row) {
        for (int x = 0; x < width / 2; ++x) {
            double r = 0, g = 0, b = 0;
            for (int dy = 0; dy < 2; ++dy) {
                for (int dx = 0; dx < 2; ++dx) {
                    const std::uint8_t* p =
                        &bgra[std::size_t(2 * row + dy) * stride + (2 * x + dx) * 4];
                    b += p[0] / 4.0, g += p[1] / 4.0, r += p[2] / 4.0;
                }
            }
            const Ycc expected = reference(r, g, b);
            const int i = row * (width / 2) + x;
            worst = std::max(worst, int(std::abs(u[i] - expected.cb) + 0.5));
            worst = std::max(worst, int(std::abs(v[i] - expected.cr) + 0.5));
            EXPECT_EQ(uv[2 * i], u[i]);
            EXPECT_EQ(uv[2 * i + 1], v[i]);
        }
    }
    EXPECT_LE(worst, 1);

    // Black and white hit the ends of the limited range; grey has neutral chroma.
    EXPECT_EQ(y[0], 16);
    EXPECT_EQ(y[2], 235);
    EXPECT_EQ(u[0], 128);
    EXPECT_EQ(v[0], 128);
    EXPECT_EQ(u[1], 128);
    EXPECT_EQ(v[1], 128);
    EXPECT_EQ(v[2], 240);  // pure red: the top of Cr
    EXPECT_EQ(u[3], 240);  // pure blue: the top of Cb
}

}  // namespace
}  // namespace pavix
