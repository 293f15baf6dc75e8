#pragma once

// The H.264 encoder set up exactly as a recording uses it, shared by the encoder probe and the
// video encoder: libx264 (High profile, preset veryfast, or superfast at reduced effort, tune
// zerolatency, no B-frames, key frame at most every 2 s, BT.709 limited range, average bit
// rate), or with `requiresHardware` a VAAPI encoder with the same settings.

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
}

#include "platform/VideoEncoder.h"

namespace pavix::ffmpeg {

struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

// Encoder time stamps count 1/90000 s: fine enough that no two distinct capture times of a
// 60 fps stream collide; the nominal frame rate stays 60.
inline constexpr AVRational timeBase{1, 90000};

// FFmpeg's text for an error code.
std::string errorText(int code);

// Quietens FFmpeg's own logging (errors only) unless PAVIX_FFMPEG_LOG is set. Idempotent.
void configureLogging();

struct OpenedEncoder {
    CodecContextPtr context;
    bool hardware = false;  // frames must be uploaded to `context->hw_frames_ctx`
    AVPixelFormat softwareFormat = AV_PIX_FMT_YUV420P;  // the format frames are converted to
};

// Creates and opens the encoder for `settings`. `globalHeader` puts the parameter sets in
// extradata (needed by MP4). On failure returns an empty context and says why in `why`.
OpenedEncoder openH264(const VideoEncoderSettings& settings, bool globalHeader, std::string* why);

}  // namespace pavix::ffmpeg
