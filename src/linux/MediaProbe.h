#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pavix {

// What a video file holds, read back with libavformat (and libavcodec for frame types): for
// tests, and for validating a finished recording (its duration).
struct MediaInfo {
    std::optional<double> durationSeconds;  // from the stream information; none if unknown
    int width = 0;
    int height = 0;
    std::string codec;    // "h264"
    std::string profile;  // "High"
    bool hasBFrames = false;     // stream reorders frames, or a decoded frame is of type B
    std::int64_t frameCount = 0;     // video packets read (when counted)
    std::int64_t keyFrameCount = 0;  // of those, key frames
    std::vector<double> keyFrameSeconds;  // their times
    double maxKeyFrameIntervalSeconds = 0;  // longest gap between key frames (or to the last frame)
    double firstFrameSeconds = 0;    // time of the first frame
    double lastFrameSeconds = 0;     // time of the last frame
    std::string colorPrimaries;  // "bt709"
    std::string colorTransfer;   // "bt709"
    std::string colorSpace;      // "bt709"
    std::string colorRange;      // "tv" (limited) or "pc" (full)
    std::int64_t bitRate = 0;    // bits per second over the file, 0 if unknown
};

namespace MediaProbe {

struct Options {
    bool countFrames = true;  // read every packet (frame count, key frames)
    int decodeFrames = 30;    // decode this many frames to check their types (0: none)
};

// Reads `path`; nothing when it is not a readable video file.
std::optional<MediaInfo> read(const std::string& path, Options options);
inline std::optional<MediaInfo> read(const std::string& path) { return read(path, Options{}); }

// The duration from the stream information alone, in seconds; nothing when unreadable or not
// finite.
std::optional<double> duration(const std::string& path);

}  // namespace MediaProbe
}  // namespace pavix
