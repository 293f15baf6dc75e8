#include "linux/FfmpegPngEncoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include <memory>
#include <stdexcept>
#include <string>

namespace pavix {
namespace {

struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

void check(int rc, const char* what) {
    if (rc < 0) {
        char reason[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(rc, reason, sizeof reason);
        throw std::runtime_error(std::string("PNG encoding failed (") + what + "): " + reason);
    }
}

}  // namespace

std::vector<std::uint8_t> FfmpegPngEncoder::png(const VideoFrame& frame) {
    if (!frame.complete || frame.layout != PixelLayout::bgra || !frame.holdsPicture()) {
        throw std::invalid_argument("The frame has no picture to encode.");
    }
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (codec == nullptr) {
        throw std::runtime_error("This FFmpeg has no PNG encoder.");
    }
    std::unique_ptr<AVCodecContext, CodecContextFree> context(avcodec_alloc_context3(codec));
    context->width = frame.width;
    context->height = frame.height;
    context->pix_fmt = AV_PIX_FMT_RGB24;
    context->time_base = AVRational{1, 1};
    check(avcodec_open2(context.get(), codec, nullptr), "open");

    std::unique_ptr<AVFrame, FrameFree> picture(av_frame_alloc());
    picture->format = AV_PIX_FMT_RGB24;
    picture->width = frame.width;
    picture->height = frame.height;
    check(av_frame_get_buffer(picture.get(), 0), "buffer");
    // BGRA (fourth byte undefined) to RGB.
    for (int y = 0; y < frame.height; ++y) {
        const std::uint8_t* in = frame.pixels->data() + std::size_t(y) * frame.stride;
        std::uint8_t* out = picture->data[0] + std::size_t(y) * picture->linesize[0];
        for (int x = 0; x < frame.width; ++x, in += 4, out += 3) {
            out[0] = in[2];
            out[1] = in[1];
            out[2] = in[0];
        }
    }
    check(avcodec_send_frame(context.get(), picture.get()), "send");
    check(avcodec_send_frame(context.get(), nullptr), "flush");
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    std::vector<std::uint8_t> bytes;
    while (avcodec_receive_packet(context.get(), packet.get()) == 0) {
        bytes.insert(bytes.end(), packet->data, packet->data + packet->size);
        av_packet_unref(packet.get());
    }
    if (bytes.empty()) {
        throw std::runtime_error("PNG encoding produced no image.");
    }
    return bytes;
}

}  // namespace pavix
