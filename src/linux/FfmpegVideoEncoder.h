#pragma once

#include <memory>
#include <string>

#include "platform/VideoEncoder.h"

namespace pavix {

// The recording's video through FFmpeg: BGRA frames converted to 4:2:0 with BT.709 limited-range
// coefficients (libswscale), H.264 from FfmpegH264.h, muxed by libavformat into an MP4 that is
// fragmented while recording (a fragment per key frame, so at most every 2 s): a process killed
// mid-recording leaves a file that plays up to its last complete fragment.
//
// A clean finish rewrites the file as a regular MP4 (moov first) by stream copy into a hidden
// temporary file beside it, which then replaces it by rename; if that fails the fragmented file
// stays, complete and playable. Files are created owner read and write only (0600), and an
// existing file is never overwritten.
class FfmpegVideoEncoder : public VideoEncoder {
public:
    struct Options {
        bool rewriteAsRegularMp4 = true;
    };

    FfmpegVideoEncoder();
    explicit FfmpegVideoEncoder(Options options);
    ~FfmpegVideoEncoder() override;

    bool open(const std::string& path, const VideoEncoderSettings& settings) override;
    bool append(const VideoFrame& frame, std::int64_t ptsNs) override;
    bool finish(std::int64_t endNs) override;
    void cancel() override;

    // Rewrites the fragmented MP4 at `path` as a regular MP4 with the index first, by stream
    // copy through a temporary file and a rename. False (and `path` untouched) on failure.
    static bool rewriteAsRegularMp4(const std::string& path, std::string* why = nullptr);

private:
    struct State;
    Options options_;
    std::unique_ptr<State> state_;
};

}  // namespace pavix
