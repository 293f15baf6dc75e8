#include "linux/FfmpegEncoderProbe.h"

#include "linux/FfmpegH264.h"

namespace pavix {

bool FfmpegEncoderProbe::canOpen(const VideoEncoderSettings& settings) {
    std::string why;
    auto opened = ffmpeg::openH264(settings, true, &why);
    return opened.context != nullptr;  // closed again as `opened` goes
}

}  // namespace pavix
