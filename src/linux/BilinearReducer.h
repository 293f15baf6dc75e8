#pragma once

#include <cstdint>
#include <vector>

namespace pavix {

// Reduces a BGRA picture with a bilinear filter and converts it to 4:2:0 BT.709 in limited
// range in the same pass, two rows at a time: the source is read once and nothing of its size
// is written. Each target pixel blends the four source pixels around its centre, weighted in
// 64ths. For reductions up to about half the size, where every source row and column still
// counts; below that it skips detail, as any two-tap filter does.
class BilinearReducer {
  public:
    // Whether a picture of the source's size can be reduced to the target's: no larger on
    // either side, at least two pixels each way, and an even target.
    static bool takes(int sourceWidth, int sourceHeight, int width, int height);

    void toI420(const std::uint8_t* source, int sourceWidth, int sourceHeight, int sourceStride,
                int width, int height, std::uint8_t* y, int yStride, std::uint8_t* u,
                std::uint8_t* v, int chromaStride);

  private:
    struct Tap {
        int first;   // the source pixel (or row) before the centre
        int weight;  // of the one after it, in 64ths
    };
    void plan(int sourceWidth, int sourceHeight, int width, int height);
    // One target row, from the two source rows around its centre.
    void reduceRow(const std::uint8_t* source, int sourceStride, const Tap& tap,
                   std::uint8_t* target);

    int sourceWidth_ = 0, sourceHeight_ = 0, width_ = 0, height_ = 0;
    std::vector<Tap> rows_;
    std::vector<int> columnOffsets_;  // byte offset of each target pixel's first source pixel
    std::vector<std::uint8_t> columnWeights_;  // per target pixel: (64 − w, w) for each channel
    std::vector<std::uint8_t> blended_;        // one source-wide row, blended vertically
    std::vector<std::uint8_t> reduced_;        // two target-wide rows, ready for conversion
};

}  // namespace pavix
