#include "linux/FfmpegEncoderProbe.h"

#include "linux/FfmpegEncoderCost.h"
#include "linux/FfmpegH264.h"

namespace pavix {

bool FfmpegEncoderProbe::canOpen(const VideoEncoderSettings& settings) {
    std::string why;
    auto opened = ffmpeg::openH264(settings, true, &why);
    return opened.context != nullptr;  // closed again as `opened` goes
}

std::optional<double> FfmpegEncoderProbe::cpuSecondsPerFrame(const VideoEncoderSettings& settings) {
    if (settings.requiresHardware || settings.width <= 0 || settings.height <= 0) {
        return std::nullopt;
    }
    const double pixels = double(settings.width) * double(settings.height);
    std::lock_guard lock(mutex_);
    auto known = secondsPerPixel_.find(settings.effort);
    if (known == secondsPerPixel_.end()) {
        // The first measurement on this machine has no earlier figure to make up for a busy
        // moment: it takes twice the groups.
        const bool first = record_ && record_->measurements(settings.effort) == 0;
        auto measured = ffmpeg::measureCpuPerFrame(settings, (first ? 2 : 1) * ffmpeg::costGroups);
        if (!measured) {
            return std::nullopt;
        }
        const double perPixel = *measured / pixels;
        known = secondsPerPixel_
                    .emplace(settings.effort,
                             record_ ? record_->add(settings.effort, perPixel) : perPixel)
                    .first;
    }
    return known->second * pixels;
}

}  // namespace pavix
