#include "linux/MediaProbe.h"

#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}

#include "linux/FfmpegH264.h"

namespace pavix::MediaProbe {
namespace {

struct Input {
    AVFormatContext* context = nullptr;
    ~Input() {
        if (context) avformat_close_input(&context);
    }
};

std::string orEmpty(const char* text) { return text ? text : ""; }

}  // namespace

std::optional<MediaInfo> read(const std::string& path, Options options) {
    ffmpeg::configureLogging();
    Input in;
    if (avformat_open_input(&in.context, path.c_str(), nullptr, nullptr) < 0) {
        return std::nullopt;
    }
    if (avformat_find_stream_info(in.context, nullptr) < 0) {
        return std::nullopt;
    }
    const int index = av_find_best_stream(in.context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) {
        return std::nullopt;
    }
    AVStream* stream = in.context->streams[index];
    const AVCodecParameters* par = stream->codecpar;

    MediaInfo info;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0) {
        info.durationSeconds = stream->duration * av_q2d(stream->time_base);
    } else if (in.context->duration != AV_NOPTS_VALUE && in.context->duration > 0) {
        info.durationSeconds = double(in.context->duration) / AV_TIME_BASE;
    }
    if (info.durationSeconds && !std::isfinite(*info.durationSeconds)) {
        info.durationSeconds.reset();
    }
    info.width = par->width;
    info.height = par->height;
    info.codec = avcodec_get_name(par->codec_id);
    info.profile = orEmpty(avcodec_profile_name(par->codec_id, par->profile));
    info.hasBFrames = par->video_delay > 0;
    info.colorPrimaries = orEmpty(av_color_primaries_name(par->color_primaries));
    info.colorTransfer = orEmpty(av_color_transfer_name(par->color_trc));
    info.colorSpace = orEmpty(av_color_space_name(par->color_space));
    info.colorRange = orEmpty(av_color_range_name(par->color_range));
    info.bitRate = in.context->bit_rate > 0 ? in.context->bit_rate : 0;

    if (!options.countFrames && options.decodeFrames <= 0) {
        return info;
    }

    ffmpeg::CodecContextPtr decoder;
    if (options.decodeFrames > 0) {
        if (const AVCodec* codec = avcodec_find_decoder(par->codec_id)) {
            decoder.reset(avcodec_alloc_context3(codec));
            if (decoder && (avcodec_parameters_to_context(decoder.get(), par) < 0 ||
                            avcodec_open2(decoder.get(), codec, nullptr) < 0)) {
                decoder.reset();
            }
        }
    }
    ffmpeg::PacketPtr packet(av_packet_alloc());
    ffmpeg::FramePtr frame(av_frame_alloc());
    int decoded = 0;
    auto takeFrames = [&] {
        while (avcodec_receive_frame(decoder.get(), frame.get()) == 0) {
            if (frame->pict_type == AV_PICTURE_TYPE_B) info.hasBFrames = true;
            ++decoded;
            av_frame_unref(frame.get());
        }
    };
    const double tb = av_q2d(stream->time_base);
    std::optional<std::int64_t> lastKey, first, last;
    std::int64_t previousDts = AV_NOPTS_VALUE;
    while (av_read_frame(in.context, packet.get()) >= 0) {
        if (packet->stream_index == index) {
            ++info.frameCount;
            const std::int64_t pts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
            if (packet->pts != AV_NOPTS_VALUE && packet->dts != AV_NOPTS_VALUE &&
                packet->pts != packet->dts) {
                info.hasBFrames = true;  // reordered
            }
            if (previousDts != AV_NOPTS_VALUE && packet->dts != AV_NOPTS_VALUE &&
                pts < previousDts) {
                info.hasBFrames = true;
            }
            previousDts = packet->dts;
            if (!first || pts < *first) first = pts;
            if (!last || pts > *last) last = pts;
            if (packet->flags & AV_PKT_FLAG_KEY) {
                ++info.keyFrameCount;
                info.keyFrameSeconds.push_back(pts * tb);
                if (lastKey) {
                    info.maxKeyFrameIntervalSeconds =
                        std::max(info.maxKeyFrameIntervalSeconds, (pts - *lastKey) * tb);
                }
                lastKey = pts;
            }
            if (decoder && decoded < options.decodeFrames) {
                if (avcodec_send_packet(decoder.get(), packet.get()) >= 0) takeFrames();
            }
        }
        av_packet_unref(packet.get());
        if (!options.countFrames && (!decoder || decoded >= options.decodeFrames)) {
            break;
        }
    }
    if (decoder && decoded < options.decodeFrames) {
        avcodec_send_packet(decoder.get(), nullptr);
        takeFrames();
    }
    if (first) info.firstFrameSeconds = *first * tb;
    if (last) info.lastFrameSeconds = *last * tb;
    if (lastKey && last && options.countFrames) {
        info.maxKeyFrameIntervalSeconds =
            std::max(info.maxKeyFrameIntervalSeconds, (*last - *lastKey) * tb);
    }
    return info;
}

std::optional<double> duration(const std::string& path) {
    auto info = read(path, Options{false, 0});
    return info ? info->durationSeconds : std::nullopt;
}

}  // namespace pavix::MediaProbe
