#pragma once

#include <map>
#include <mutex>
#include <optional>

#include "linux/EncoderCostRecord.h"
#include "platform/EncoderProbe.h"

namespace pavix {

// Opens and closes a real H.264 encoder with the recording's settings (see FfmpegH264.h):
// libx264 for an ordinary size, only a hardware (VAAPI) encoder when hardware is required.
//
// The cost of a frame is measured once per effort, at the first size asked (see
// FfmpegEncoderCost.h), and scaled by the pixel count for other sizes: libx264's work grows
// with the number of macroblocks. With a record, the figure is the cheapest of this and the
// last runs' measurements (see EncoderCostRecord.h), and the first on this machine measures
// twice as long. Safe to call from several threads;
// measurements run one at a time, so that two never share the processors.
class FfmpegEncoderProbe : public EncoderProbe {
  public:
    FfmpegEncoderProbe() = default;
    explicit FfmpegEncoderProbe(EncoderCostRecord record) : record_(std::move(record)) {}

    bool canOpen(const VideoEncoderSettings& settings) override;
    std::optional<double> cpuSecondsPerFrame(const VideoEncoderSettings& settings) override;

  private:
    std::mutex mutex_;
    std::optional<EncoderCostRecord> record_;          // guarded by mutex_
    std::map<EncoderEffort, double> secondsPerPixel_;  // guarded by mutex_
};

}  // namespace pavix
