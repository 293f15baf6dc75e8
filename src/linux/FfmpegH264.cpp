#include "linux/FfmpegH264.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace pavix::ffmpeg {
namespace {

struct BufferUnref {
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
using BufferPtr = std::unique_ptr<AVBufferRef, BufferUnref>;

void setCommon(AVCodecContext* c, const VideoEncoderSettings& s, bool globalHeader) {
    c->width = s.width;
    c->height = s.height;
    c->time_base = timeBase;
    c->framerate = AVRational{s.frameRate, 1};
    c->bit_rate = s.bitrate;
    // Average bit rate with a bounded peak, so a burst of motion cannot stall the writer.
    c->rc_max_rate = 2 * s.bitrate;
    c->rc_buffer_size = static_cast<int>(std::min<std::int64_t>(2 * s.bitrate, 1'000'000'000));
    c->max_b_frames = 0;
    // The frame-count bound; the time bound is enforced by forcing key frames by time.
    const std::int64_t keyint = s.maxKeyFrameIntervalNs * s.frameRate / 1'000'000'000;
    c->gop_size = static_cast<int>(std::max<std::int64_t>(keyint, 1));
    c->profile = FF_PROFILE_H264_HIGH;
    c->color_primaries = AVCOL_PRI_BT709;
    c->color_trc = AVCOL_TRC_BT709;
    c->colorspace = AVCOL_SPC_BT709;
    c->color_range = AVCOL_RANGE_MPEG;
    if (globalHeader) {
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
}

OpenedEncoder openSoftware(const VideoEncoderSettings& s, bool globalHeader, std::string* why) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (!codec) {
        *why = "libx264 is not available";
        return {};
    }
    CodecContextPtr c(avcodec_alloc_context3(codec));
    if (!c) {
        *why = "out of memory";
        return {};
    }
    setCommon(c.get(), s, globalHeader);
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    AVDictionary* options = nullptr;
    // Full effort is libx264's "veryfast"; reduced is "superfast", which spends about two thirds
    // of the CPU time (one reference frame, the quickest motion search, no trellis) and keeps
    // CABAC and 8×8 transforms, so the stream stays High profile. "ultrafast" would drop both.
    av_dict_set(&options, "preset", s.effort == EncoderEffort::full ? "veryfast" : "superfast", 0);
    av_dict_set(&options, "tune", "zerolatency", 0);
    av_dict_set(&options, "profile", "high", 0);
    av_dict_set(&options, "forced-idr", "1", 0);
    // Zero latency brings slice threads. Frame threads were measured here too (the capture
    // benchmark's animated 1080p): a tenth more frames through, but 7% more CPU a frame and a
    // third more memory; the recording keeps slices, which leave the machine to its user.
    const int rc = avcodec_open2(c.get(), codec, &options);
    av_dict_free(&options);
    if (rc < 0) {
        *why = "libx264: " + errorText(rc);
        return {};
    }
    return OpenedEncoder{std::move(c), false, AV_PIX_FMT_YUV420P};
}

// VAAPI: frames are converted to NV12 in memory and uploaded to the device.
OpenedEncoder openHardware(const VideoEncoderSettings& s, bool globalHeader, std::string* why) {
    const AVCodec* codec = avcodec_find_encoder_by_name("h264_vaapi");
    if (!codec) {
        *why = "h264_vaapi is not available";
        return {};
    }
    AVBufferRef* rawDevice = nullptr;
    int rc = av_hwdevice_ctx_create(&rawDevice, AV_HWDEVICE_TYPE_VAAPI, nullptr, nullptr, 0);
    BufferPtr device(rawDevice);
    if (rc < 0) {
        *why = "no VAAPI device: " + errorText(rc);
        return {};
    }
    BufferPtr frames(av_hwframe_ctx_alloc(device.get()));
    if (!frames) {
        *why = "out of memory";
        return {};
    }
    auto* framesContext = reinterpret_cast<AVHWFramesContext*>(frames->data);
    framesContext->format = AV_PIX_FMT_VAAPI;
    framesContext->sw_format = AV_PIX_FMT_NV12;
    framesContext->width = s.width;
    framesContext->height = s.height;
    framesContext->initial_pool_size = 8;
    if ((rc = av_hwframe_ctx_init(frames.get())) < 0) {
        *why = "VAAPI frames: " + errorText(rc);
        return {};
    }
    CodecContextPtr c(avcodec_alloc_context3(codec));
    if (!c) {
        *why = "out of memory";
        return {};
    }
    setCommon(c.get(), s, globalHeader);
    c->pix_fmt = AV_PIX_FMT_VAAPI;
    c->hw_frames_ctx = av_buffer_ref(frames.get());
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rc_mode", "VBR", 0);
    rc = avcodec_open2(c.get(), codec, &options);
    av_dict_free(&options);
    if (rc < 0) {
        *why = "h264_vaapi: " + errorText(rc);
        return {};
    }
    return OpenedEncoder{std::move(c), true, AV_PIX_FMT_NV12};
}

}  // namespace

std::string errorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

void configureLogging() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (!std::getenv("PAVIX_FFMPEG_LOG")) {
            av_log_set_level(AV_LOG_ERROR);
        }
    });
}

OpenedEncoder openH264(const VideoEncoderSettings& settings, bool globalHeader, std::string* why) {
    configureLogging();
    std::string ignored;
    if (!why) {
        why = &ignored;
    }
    if (settings.width < 2 || settings.height < 2 || settings.width % 2 || settings.height % 2 ||
        settings.bitrate <= 0 || settings.frameRate <= 0) {
        *why = "invalid settings";
        return {};
    }
    // "Requires hardware" admits only a hardware encoder.
    return settings.requiresHardware ? openHardware(settings, globalHeader, why)
                                     : openSoftware(settings, globalHeader, why);
}

}  // namespace pavix::ffmpeg
