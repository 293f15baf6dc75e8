#include "linux/FfmpegMediaReader.h"

#include "linux/MediaProbe.h"

namespace pavix {

std::optional<double> FfmpegMediaReader::duration(const std::string& path) {
    return MediaProbe::duration(path);
}

}  // namespace pavix
