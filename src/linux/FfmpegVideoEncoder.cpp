#include "linux/FfmpegVideoEncoder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include "core/runtime/ThreadName.h"
#include "linux/FfmpegColourConversion.h"
#include "linux/FfmpegH264.h"

namespace pavix {
namespace {

constexpr const char* kFragmentedMovFlags = "frag_keyframe+empty_moov+default_base_moof";

void logLine(const std::string& text) {
    std::fprintf(stderr, "pavix: video encoder: %s\n", text.c_str());
}

std::int64_t nsToTicks(std::int64_t ns) {
    return av_rescale_rnd(ns, ffmpeg::timeBase.den,
                          std::int64_t{1'000'000'000} * ffmpeg::timeBase.num, AV_ROUND_NEAR_INF);
}

// Creates `path` owner read and write only, refusing to replace an existing file.
void createPrivateFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(),
                                "Could not create the video file " + path);
    }
    ::fchmod(fd, 0600);  // whatever the umask
    ::close(fd);
}

// The parent folder, for syncing a rename.
std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

bool syncPath(const std::string& path, int flags) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

struct FormatOutput {
    AVFormatContext* context = nullptr;
    ~FormatOutput() { close(); }
    void close() {
        if (context) {
            if (context->pb)
                avio_closep(&context->pb);
            avformat_free_context(context);
            context = nullptr;
        }
    }
};

struct FormatInput {
    AVFormatContext* context = nullptr;
    ~FormatInput() {
        if (context)
            avformat_close_input(&context);
    }
};

}  // namespace

struct FfmpegVideoEncoder::State {
    std::string path;
    VideoEncoderSettings settings;
    ffmpeg::OpenedEncoder encoder;
    FormatOutput output;
    AVStream* stream = nullptr;

    SwsContext* scaler = nullptr;
    int sourceWidth = 0, sourceHeight = 0;
    int placeX = 0, placeY = 0, placeWidth = 0, placeHeight = 0;
    ffmpeg::FramePtr picture;   // converted picture, encoder size
    ffmpeg::FramePtr hardware;  // upload target (VAAPI)
    ffmpeg::PacketPtr packet;
    ffmpeg::PacketPtr held;  // written once the next packet tells its duration
    bool haveHeld = false;

    std::int64_t lastPts = -1;
    std::int64_t lastKeyPts = 0;
    bool haveKey = false;
    std::int64_t keyIntervalTicks = 0;

    ~State() { sws_freeContext(scaler); }

    bool fail(const std::string& what, int code) {
        logLine(what + ": " + ffmpeg::errorText(code));
        return false;
    }

    // For a frame of another size than the encoder's (libswscale): scaled to fit with its
    // aspect kept, centred on black.
    bool prepareScaler(int width, int height) {
        if (scaler && width == sourceWidth && height == sourceHeight) {
            return true;
        }
        const int W = settings.width, H = settings.height;
        if (width == W && height == H) {
            placeX = placeY = 0;
            placeWidth = W;
            placeHeight = H;
        } else {
            const double scale = std::min(double(W) / width, double(H) / height);
            placeWidth = std::clamp(int(width * scale) & ~1, 2, W);
            placeHeight = std::clamp(int(height * scale) & ~1, 2, H);
            placeX = ((W - placeWidth) / 2) & ~1;
            placeY = ((H - placeHeight) / 2) & ~1;
        }
        sws_freeContext(scaler);
        scaler = sws_getContext(width, height, AV_PIX_FMT_BGRA, placeWidth, placeHeight,
                                encoder.softwareFormat, SWS_BILINEAR, nullptr, nullptr, nullptr);
        if (!scaler) {
            logLine("no colour converter for " + std::to_string(width) + "x" +
                    std::to_string(height));
            return false;
        }
        // RGB in full range to BT.709 limited-range YCbCr.
        sws_setColorspaceDetails(scaler, sws_getCoefficients(SWS_CS_DEFAULT), 1,
                                 sws_getCoefficients(SWS_CS_ITU709), 0, 0, 1 << 16, 1 << 16);
        sourceWidth = width;
        sourceHeight = height;
        if (av_frame_make_writable(picture.get()) < 0) {
            return false;
        }
        paintBlack();
        return true;
    }

    void paintBlack() {
        AVFrame* f = picture.get();
        for (int y = 0; y < f->height; ++y) {
            std::memset(f->data[0] + std::ptrdiff_t(y) * f->linesize[0], 16, f->width);
        }
        const int chromaHeight = (f->height + 1) / 2;
        if (encoder.softwareFormat == AV_PIX_FMT_NV12) {
            for (int y = 0; y < chromaHeight; ++y) {
                std::memset(f->data[1] + std::ptrdiff_t(y) * f->linesize[1], 128, f->width);
            }
        } else {
            for (int plane = 1; plane <= 2; ++plane) {
                for (int y = 0; y < chromaHeight; ++y) {
                    std::memset(f->data[plane] + std::ptrdiff_t(y) * f->linesize[plane], 128,
                                (f->width + 1) / 2);
                }
            }
        }
    }

    // A picture already in 4:2:0 is copied plane by plane (interleaving the chroma for NV12).
    bool copyPlanes(const VideoFrame& frame) {
        if (frame.width != settings.width || frame.height != settings.height) {
            logLine("a 4:2:0 picture of another size than the video");
            return false;
        }
        AVFrame* f = picture.get();
        const int rc = av_frame_make_writable(f);
        if (rc < 0) {
            return fail("frame buffer", rc);
        }
        const std::uint8_t* y = frame.pixels->data();
        const std::uint8_t* u = y + std::size_t(frame.stride) * frame.height;
        const std::uint8_t* v = u + std::size_t(frame.stride / 2) * (frame.height / 2);
        av_image_copy_plane(f->data[0], f->linesize[0], y, frame.stride, frame.width, frame.height);
        const int chromaWidth = frame.width / 2, chromaHeight = frame.height / 2;
        if (encoder.softwareFormat == AV_PIX_FMT_NV12) {
            for (int row = 0; row < chromaHeight; ++row) {
                std::uint8_t* out = f->data[1] + std::ptrdiff_t(row) * f->linesize[1];
                const std::uint8_t* cb = u + std::ptrdiff_t(row) * (frame.stride / 2);
                const std::uint8_t* cr = v + std::ptrdiff_t(row) * (frame.stride / 2);
                for (int column = 0; column < chromaWidth; ++column) {
                    out[2 * column] = cb[column];
                    out[2 * column + 1] = cr[column];
                }
            }
        } else {
            av_image_copy_plane(f->data[1], f->linesize[1], u, frame.stride / 2, chromaWidth,
                                chromaHeight);
            av_image_copy_plane(f->data[2], f->linesize[2], v, frame.stride / 2, chromaWidth,
                                chromaHeight);
        }
        return true;
    }

    bool convert(const VideoFrame& frame) {
        if (frame.layout == PixelLayout::i420) {
            return copyPlanes(frame);
        }
        AVFrame* f = picture.get();
        if (frame.width == settings.width && frame.height == settings.height) {
            // Every ordinary frame: the direct conversion, no scaling.
            const int rc = av_frame_make_writable(f);
            if (rc < 0) {
                return fail("frame buffer", rc);
            }
            if (sourceWidth != frame.width || sourceHeight != frame.height) {
                sws_freeContext(scaler);
                scaler = nullptr;
                sourceWidth = frame.width;
                sourceHeight = frame.height;
            }
            if (encoder.softwareFormat == AV_PIX_FMT_NV12) {
                ffmpeg::bgraToNv12Bt709(frame.pixels->data(), frame.stride, frame.width,
                                        frame.height, f->data[0], f->linesize[0], f->data[1],
                                        f->linesize[1]);
            } else {
                ffmpeg::bgraToI420Bt709(frame.pixels->data(), frame.stride, frame.width,
                                        frame.height, f->data[0], f->linesize[0], f->data[1],
                                        f->linesize[1], f->data[2], f->linesize[2]);
            }
            return true;
        }
        if (!prepareScaler(frame.width, frame.height)) {
            return false;
        }
        int rc = av_frame_make_writable(f);
        if (rc < 0) {
            return fail("frame buffer", rc);
        }
        std::uint8_t* dst[4] = {};
        int dstStride[4] = {};
        dst[0] = f->data[0] + std::ptrdiff_t(placeY) * f->linesize[0] + placeX;
        dstStride[0] = f->linesize[0];
        if (encoder.softwareFormat == AV_PIX_FMT_NV12) {
            dst[1] = f->data[1] + std::ptrdiff_t(placeY / 2) * f->linesize[1] + placeX;
            dstStride[1] = f->linesize[1];
        } else {
            for (int plane = 1; plane <= 2; ++plane) {
                dst[plane] =
                    f->data[plane] + std::ptrdiff_t(placeY / 2) * f->linesize[plane] + placeX / 2;
                dstStride[plane] = f->linesize[plane];
            }
        }
        const std::uint8_t* src[4] = {frame.pixels->data(), nullptr, nullptr, nullptr};
        const int srcStride[4] = {frame.stride, 0, 0, 0};
        rc = sws_scale(scaler, src, srcStride, 0, frame.height, dst, dstStride);
        if (rc <= 0) {
            logLine("colour conversion failed");
            return false;
        }
        return true;
    }

    bool writePacket(AVPacket* p) {
        if (p->flags & AV_PKT_FLAG_KEY) {
            lastKeyPts = std::max(lastKeyPts, p->pts);
            haveKey = true;
        }
        p->stream_index = stream->index;
        av_packet_rescale_ts(p, encoder.context->time_base, stream->time_base);
        if (haveHeld) {
            held->duration = std::max<std::int64_t>(p->dts - held->dts, 1);
            const bool key = held->flags & AV_PKT_FLAG_KEY;
            const int rc = av_write_frame(output.context, held.get());
            av_packet_unref(held.get());
            haveHeld = false;
            if (rc < 0) {
                av_packet_unref(p);
                return fail("writing the file", rc);
            }
            if (key) {
                // A key frame closed the previous fragment: put it on disk now, so that a
                // killed process keeps it.
                avio_flush(output.context->pb);
                if (output.context->pb->error < 0) {
                    av_packet_unref(p);
                    return fail("writing the file", output.context->pb->error);
                }
            }
        }
        av_packet_move_ref(held.get(), p);
        haveHeld = true;
        return true;
    }

    bool drain() {
        for (;;) {
            const int rc = avcodec_receive_packet(encoder.context.get(), packet.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
                return true;
            }
            if (rc < 0) {
                return fail("encoding", rc);
            }
            if (!writePacket(packet.get())) {
                return false;
            }
        }
    }

    bool send(std::int64_t pts) {
        AVFrame* f = picture.get();
        f->pts = pts;
        // An encoder may hand packets back a few frames late (frame threads, a look-ahead, a
        // hardware queue): the last key frame is the later of the last one asked for and the
        // last one seen coming out (the encoder may start one of its own at a scene change).
        const bool due = !haveKey || pts - lastKeyPts >= keyIntervalTicks;
        f->pict_type = due ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        if (due) {
            lastKeyPts = pts;
            haveKey = true;
        }
        AVFrame* toSend = f;
        if (encoder.hardware) {
            av_frame_unref(hardware.get());
            int rc = av_hwframe_get_buffer(encoder.context->hw_frames_ctx, hardware.get(), 0);
            if (rc < 0)
                return fail("hardware frame", rc);
            rc = av_hwframe_transfer_data(hardware.get(), f, 0);
            if (rc < 0)
                return fail("hardware upload", rc);
            av_frame_copy_props(hardware.get(), f);
            toSend = hardware.get();
        }
        const int rc = avcodec_send_frame(encoder.context.get(), toSend);
        if (rc < 0) {
            return fail("encoding", rc);
        }
        return drain();
    }
};

FfmpegVideoEncoder::FfmpegVideoEncoder() : FfmpegVideoEncoder(Options{}) {}
FfmpegVideoEncoder::FfmpegVideoEncoder(Options options) : options_(options) {}

FfmpegVideoEncoder::~FfmpegVideoEncoder() {
    cancel();
}

bool FfmpegVideoEncoder::open(const std::string& path, const VideoEncoderSettings& settings) {
    cancel();
    ffmpeg::configureLogging();
    createPrivateFile(path);  // throws with the system's reason

    auto s = std::make_unique<State>();
    s->path = path;
    s->settings = settings;
    s->keyIntervalTicks = nsToTicks(settings.maxKeyFrameIntervalNs);
    auto abandon = [&](const std::string& why) {
        logLine("cannot record " + std::to_string(settings.width) + "x" +
                std::to_string(settings.height) + ": " + why);
        s.reset();
        ::unlink(path.c_str());  // the empty file this call created
        return false;
    };

    std::string why;
    {
        // The encoder's worker threads start here and keep this name.
        ThreadNameScope workers("pavix-encoder");
        s->encoder = ffmpeg::openH264(settings, true, &why);
    }
    if (!s->encoder.context) {
        return abandon(why);
    }
    int rc = avformat_alloc_output_context2(&s->output.context, nullptr, "mp4", path.c_str());
    if (rc < 0 || !s->output.context) {
        return abandon("mp4 muxer: " + ffmpeg::errorText(rc));
    }
    s->stream = avformat_new_stream(s->output.context, nullptr);
    if (!s->stream) {
        return abandon("out of memory");
    }
    s->stream->time_base = s->encoder.context->time_base;
    s->stream->avg_frame_rate = AVRational{settings.frameRate, 1};
    if ((rc = avcodec_parameters_from_context(s->stream->codecpar, s->encoder.context.get())) < 0) {
        return abandon("stream parameters: " + ffmpeg::errorText(rc));
    }
    if ((rc = avio_open(&s->output.context->pb, path.c_str(), AVIO_FLAG_WRITE)) < 0) {
        return abandon("opening the file: " + ffmpeg::errorText(rc));
    }
    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", kFragmentedMovFlags, 0);
    rc = avformat_write_header(s->output.context, &options);
    av_dict_free(&options);
    if (rc < 0) {
        return abandon("writing the header: " + ffmpeg::errorText(rc));
    }
    avio_flush(s->output.context->pb);

    s->picture.reset(av_frame_alloc());
    s->hardware.reset(av_frame_alloc());
    s->packet.reset(av_packet_alloc());
    s->held.reset(av_packet_alloc());
    if (!s->picture || !s->hardware || !s->packet || !s->held) {
        return abandon("out of memory");
    }
    AVFrame* f = s->picture.get();
    f->format = s->encoder.softwareFormat;
    f->width = settings.width;
    f->height = settings.height;
    f->color_primaries = AVCOL_PRI_BT709;
    f->color_trc = AVCOL_TRC_BT709;
    f->colorspace = AVCOL_SPC_BT709;
    f->color_range = AVCOL_RANGE_MPEG;
    if ((rc = av_frame_get_buffer(f, 0)) < 0) {
        return abandon("frame buffer: " + ffmpeg::errorText(rc));
    }
    state_ = std::move(s);
    return true;
}

bool FfmpegVideoEncoder::append(const VideoFrame& frame, std::int64_t ptsNs) {
    State* s = state_.get();
    if (!s || !frame.holdsPicture()) {
        return false;
    }
    if (!s->convert(frame)) {
        return false;
    }
    std::int64_t pts = nsToTicks(ptsNs);
    if (pts <= s->lastPts) {
        pts = s->lastPts + 1;  // distinct capture times closer than one tick
    }
    s->lastPts = pts;
    return s->send(pts);
}

bool FfmpegVideoEncoder::finish(std::int64_t endNs) {
    std::unique_ptr<State> s = std::move(state_);
    if (!s) {
        return false;
    }
    bool ok = true;
    int rc = avcodec_send_frame(s->encoder.context.get(), nullptr);
    if (rc < 0) {
        ok = s->fail("flushing the encoder", rc);
    } else {
        ok = s->drain();
    }
    if (ok && s->haveHeld) {
        // The last frame lasts until the end of the session.
        const std::int64_t end =
            av_rescale_q(nsToTicks(endNs), s->encoder.context->time_base, s->stream->time_base);
        s->held->duration = std::max<std::int64_t>(end - s->held->dts, 1);
        rc = av_write_frame(s->output.context, s->held.get());
        av_packet_unref(s->held.get());
        s->haveHeld = false;
        if (rc < 0) {
            ok = s->fail("writing the file", rc);
        }
    }
    if (ok && (rc = av_write_trailer(s->output.context)) < 0) {
        ok = s->fail("completing the file", rc);
    }
    if (ok && s->output.context->pb) {
        avio_flush(s->output.context->pb);
        if (s->output.context->pb->error < 0) {
            ok = s->fail("writing the file", s->output.context->pb->error);
        }
        rc = avio_closep(&s->output.context->pb);
        if (ok && rc < 0) {
            ok = s->fail("closing the file", rc);
        }
    }
    const std::string path = s->path;
    s.reset();
    if (!ok) {
        return false;
    }
    syncPath(path, O_RDONLY);
    if (options_.rewriteAsRegularMp4) {
        std::string why;
        if (!rewriteAsRegularMp4(path, &why)) {
            logLine("kept the fragmented file " + path + ": " + why);
        }
    }
    return true;
}

void FfmpegVideoEncoder::cancel() {
    // Closing without a trailer leaves the fragments written so far.
    state_.reset();
}

bool FfmpegVideoEncoder::rewriteAsRegularMp4(const std::string& path, std::string* why) {
    std::string ignored;
    if (!why)
        why = &ignored;
    ffmpeg::configureLogging();
    const std::string parent = parentOf(path);
    const std::string name =
        path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    const std::string temporary = parent + "/." + name + ".rewrite";

    auto failed = [&](const std::string& what, int code) {
        *why = what + (code ? ": " + ffmpeg::errorText(code) : std::string());
        return false;
    };

    bool ok = [&] {
        FormatInput in;
        int rc = avformat_open_input(&in.context, path.c_str(), nullptr, nullptr);
        if (rc < 0)
            return failed("reading", rc);
        if ((rc = avformat_find_stream_info(in.context, nullptr)) < 0)
            return failed("reading", rc);
        if (in.context->nb_streams != 1 ||
            in.context->streams[0]->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
            return failed("unexpected streams", 0);
        }
        AVStream* source = in.context->streams[0];

        ::unlink(temporary.c_str());  // a leftover of an earlier attempt: ours
        try {
            createPrivateFile(temporary);
        } catch (const std::system_error& error) {
            return failed(error.what(), 0);
        }
        FormatOutput out;
        rc = avformat_alloc_output_context2(&out.context, nullptr, "mp4", temporary.c_str());
        if (rc < 0)
            return failed("mp4 muxer", rc);
        AVStream* target = avformat_new_stream(out.context, nullptr);
        if (!target)
            return failed("out of memory", 0);
        if ((rc = avcodec_parameters_copy(target->codecpar, source->codecpar)) < 0) {
            return failed("stream parameters", rc);
        }
        target->codecpar->codec_tag = 0;
        target->time_base = source->time_base;
        target->avg_frame_rate = source->avg_frame_rate;
        if ((rc = avio_open(&out.context->pb, temporary.c_str(), AVIO_FLAG_WRITE)) < 0) {
            return failed("creating", rc);
        }
        AVDictionary* options = nullptr;
        av_dict_set(&options, "movflags", "faststart", 0);
        rc = avformat_write_header(out.context, &options);
        av_dict_free(&options);
        if (rc < 0)
            return failed("writing", rc);

        // Packets are written one behind, so that the last one can be given the length the
        // fragments recorded for the track (the demuxer reports a single frame's).
        ffmpeg::PacketPtr packet(av_packet_alloc());
        ffmpeg::PacketPtr held(av_packet_alloc());
        bool haveHeld = false;
        std::int64_t packets = 0;
        auto writeHeld = [&]() -> int {
            av_packet_rescale_ts(held.get(), source->time_base, target->time_base);
            held->stream_index = 0;
            held->pos = -1;
            const int result = av_write_frame(out.context, held.get());
            av_packet_unref(held.get());
            haveHeld = false;
            ++packets;
            return result;
        };
        for (;;) {
            rc = av_read_frame(in.context, packet.get());
            if (rc == AVERROR_EOF)
                break;
            if (rc < 0)
                return failed("reading", rc);
            if (haveHeld && (rc = writeHeld()) < 0)
                return failed("writing", rc);
            av_packet_move_ref(held.get(), packet.get());
            haveHeld = true;
        }
        if (!haveHeld)
            return failed("no frames", 0);
        if (source->duration != AV_NOPTS_VALUE && held->pts != AV_NOPTS_VALUE) {
            const std::int64_t start =
                source->start_time != AV_NOPTS_VALUE ? source->start_time : 0;
            held->duration = std::max(held->duration, start + source->duration - held->pts);
        }
        if ((rc = writeHeld()) < 0)
            return failed("writing", rc);
        if ((rc = av_write_trailer(out.context)) < 0)
            return failed("writing", rc);
        if ((rc = avio_closep(&out.context->pb)) < 0)
            return failed("closing", rc);
        return true;
    }();

    // Only a complete, synced copy replaces the original.
    if (ok && !syncPath(temporary, O_RDONLY)) {
        ok = failed("syncing", AVERROR(errno));
    }
    if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
        ok = failed("replacing", AVERROR(errno));
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        return false;
    }
    syncPath(parent, O_RDONLY | O_DIRECTORY);
    return true;
}

}  // namespace pavix
