#include "linux/FfmpegEncoderCost.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "linux/FfmpegH264.h"

namespace pavix::ffmpeg {
namespace {

double cpuSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// Frame `n` of the clip, straight into the encoder's 4:2:0 planes, like a busy screen: a strip
// of text-like strokes on white scrolling up 4 rows a frame across the top twelfth; below it
// every pixel changes every frame, a flat colour drifting a little each frame, crossed by a
// bright bar moving 8 pixels a frame. Against the capture benchmark's pictures it costs about
// what the animated picture costs at reduced effort and somewhat more at full effort, so that a
// machine near the line records at the lighter setting rather than shedding frames.
void paint(AVFrame* frame, int n) {
    const int width = frame->width, height = frame->height, text = height / 12;
    const auto flat = std::uint8_t(40 + (n * 3 / 2) % 160);
    const int bar = (n * 8) % width;
    for (int y = 0; y < height; ++y) {
        auto* line = frame->data[0] + y * frame->linesize[0];
        if (y < text) {
            const int row = y + 4 * n;
            const int inLine = row % 24;  // 24-row lines, glyphs in rows 6 to 17
            for (int x = 0; x < width; ++x) {
                const int cell = x / 10, inCell = x % 10;
                const unsigned glyph = unsigned(cell) * 2654435761u ^ unsigned(row / 24) * 40503u;
                const bool word = (glyph >> 7) % 7 != 0;
                const bool stroke = inLine >= 6 && inLine < 18 &&
                                    (inCell == 1 + int(glyph % 3) || inLine == 6 + int(glyph % 11));
                line[x] = word && stroke && inCell < 8 ? 40 : 235;
            }
            continue;
        }
        std::memset(line, flat, width);
        std::memset(line + bar, 235, std::min(120, width - bar));
    }
    for (int y = 0; y < height / 2; ++y) {
        const bool inText = y < text / 2;
        std::memset(frame->data[1] + y * frame->linesize[1], inText ? 128 : 108 + (n / 2) % 40,
                    width / 2);
        std::memset(frame->data[2] + y * frame->linesize[2], inText ? 128 : 108 + (n / 3) % 40,
                    width / 2);
    }
}

}  // namespace

std::optional<double> measureCpuPerFrame(const VideoEncoderSettings& settings, int groups) {
    if (settings.requiresHardware) {
        return std::nullopt;
    }
    auto opened = openH264(settings, false, nullptr);
    if (!opened.context || opened.hardware) {
        return std::nullopt;
    }
    AVCodecContext* c = opened.context.get();
    FramePtr frame(av_frame_alloc());
    PacketPtr packet(av_packet_alloc());
    if (!frame || !packet) {
        return std::nullopt;
    }
    frame->format = c->pix_fmt;
    frame->width = c->width;
    frame->height = c->height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        return std::nullopt;
    }
    auto encode = [&](int n) {
        frame->pts = n * (timeBase.den / settings.frameRate);
        if (avcodec_send_frame(c, frame.get()) < 0) {
            return false;
        }
        while (avcodec_receive_packet(c, packet.get()) == 0) {
            av_packet_unref(packet.get());
        }
        return true;
    };

    // The measured frames go in groups and the cheapest group's cost is the answer: other work
    // on the machine (a busy sibling core, a cold cache, a lower clock) only ever adds to a
    // group's time, so the least disturbed group is the truest figure of the encoder's own work.
    std::vector<double> costs;
    double started = 0, painting = 0;
    for (int n = 0; n < costWarmUpFrames + std::max(1, groups) * costGroupFrames; ++n) {
        const int measured = n - costWarmUpFrames;
        if (measured >= 0 && measured % costGroupFrames == 0) {
            started = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
            painting = 0;
        }
        const double before = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        if (av_frame_make_writable(frame.get()) < 0) {
            return std::nullopt;
        }
        paint(frame.get(), n);
        painting += cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - before;
        if (!encode(n)) {
            return std::nullopt;
        }
        if (measured >= 0 && measured % costGroupFrames == costGroupFrames - 1) {
            const double spent = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - started - painting;
            costs.push_back(std::max(0.0, spent) / costGroupFrames);
        }
    }
    return *std::min_element(costs.begin(), costs.end());
}

}  // namespace pavix::ffmpeg
