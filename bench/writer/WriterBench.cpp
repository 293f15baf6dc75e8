// Encodes animated 1920×1080 BGRA frames offered at 60 fps in real time through CaptureWriter and
// FfmpegVideoEncoder, then (unless --no-reference) the same frames through the ffmpeg tool with
// the same settings, and prints delivered frame rate, shed frames, CPU seconds per recorded
// second and peak memory for each.
//
//   pavix-bench-writer [--seconds 20] [--size 1920x1080] [--no-reference] [--keep DIR]
//                      [--capacity]
//
// --capacity also measures the writer alone with frames handed over as fast as it takes them
// (none shed): the CPU cost of one frame and the frame rate the machine could sustain.

#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/capture/CaptureWriter.h"
#include "linux/FfmpegVideoEncoder.h"
#include "linux/MediaProbe.h"

using namespace pavix;
namespace fs = std::filesystem;

namespace {

constexpr int kRate = 60;
constexpr std::int64_t kFrameNs = 1'000'000'000 / kRate;

std::int64_t monotonicNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Peak resident memory (VmHWM) of a process, in MB; 0 when unknown.
double peakRssMb(pid_t pid) {
    const std::string file = pid ? "/proc/" + std::to_string(pid) + "/status" : "/proc/self/status";
    FILE* in = std::fopen(file.c_str(), "r");
    if (!in) return 0;
    char line[256];
    long kb = 0;
    while (std::fgets(line, sizeof line, in)) {
        if (std::sscanf(line, "VmHWM: %ld kB", &kb) == 1) break;
    }
    std::fclose(in);
    return kb / 1024.0;
}

// Resident memory (VmRSS) of this process now, in MB.
double currentRssMb() {
    FILE* in = std::fopen("/proc/self/status", "r");
    if (!in) return 0;
    char line[256];
    long kb = 0;
    while (std::fgets(line, sizeof line, in)) {
        if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    }
    std::fclose(in);
    return kb / 1024.0;
}

double seconds(const timeval& tv) { return tv.tv_sec + tv.tv_usec / 1e6; }

double processCpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Screen-like content: a page of text-like blocks that scrolls, and a window that moves across it.
class Animation {
public:
    Animation(int width, int height) : width_(width), height_(height) {
        pageHeight_ = height * 3;
        page_.resize(std::size_t(width) * pageHeight_ * 4);
        for (int y = 0; y < pageHeight_; ++y) {
            std::uint8_t* row = page_.data() + std::size_t(y) * width * 4;
            const int line = y / 18, inLine = y % 18;
            for (int x = 0; x < width; ++x) {
                std::uint8_t v = 250;
                if (inLine >= 4 && inLine < 14 && x > 40 && x < width - 300) {
                    // "Glyphs": runs of dark strokes, varying by line and column.
                    const unsigned h = (unsigned(line) * 2654435761u) ^ (unsigned(x / 7) * 40503u);
                    if ((h & 7) != 0 && ((x + inLine * (h & 3)) % 7) < 2) v = 30;
                    if ((h & 31) == 0) v = 250;  // spaces
                }
                row[x * 4 + 0] = v;
                row[x * 4 + 1] = v;
                row[x * 4 + 2] = std::uint8_t(std::min(255, v + (line % 5 == 0 ? 0 : 5)));
                row[x * 4 + 3] = 255;
            }
        }
    }

    // Draws frame `index` into `out` (width × height × 4 bytes).
    void draw(int index, std::vector<std::uint8_t>& out) const {
        const std::size_t rowBytes = std::size_t(width_) * 4;
        const int scroll = (index * 3) % (pageHeight_ - height_);
        std::memcpy(out.data(), page_.data() + std::size_t(scroll) * rowBytes,
                    rowBytes * height_);
        // A moving coloured window with a gradient.
        const int boxWidth = width_ / 4, boxHeight = height_ / 4;
        const int bx = (index * 5) % (width_ - boxWidth);
        const int by = height_ / 2 + int((height_ / 4) * 0.8 * ((index / 30) % 2 ? 1 : -1) * 0.5);
        for (int y = by; y < by + boxHeight && y < height_; ++y) {
            std::uint8_t* row = out.data() + std::size_t(y) * rowBytes;
            for (int x = bx; x < bx + boxWidth; ++x) {
                row[x * 4 + 0] = std::uint8_t(x - bx + index);
                row[x * 4 + 1] = std::uint8_t(y - by);
                row[x * 4 + 2] = 200;
            }
        }
    }

private:
    int width_, height_, pageHeight_;
    std::vector<std::uint8_t> page_;
};

struct Figures {
    std::string name;
    double recordedSeconds = 0;
    std::int64_t offered = 0, delivered = 0, shed = 0;
    double cpuSeconds = 0;
    double peakRssMb = 0;
    double fileMb = 0;
    std::optional<double> duration;
    std::int64_t fileFrames = 0;
};

// Offers `count` frames at 60 fps in real time to `deliver` from a pool of reused buffers;
// returns the generator thread's own CPU seconds.
double offerFrames(const Animation& animation, int width, int height, int count,
                   std::int64_t start, const std::function<void(const VideoFrame&)>& deliver) {
    std::vector<std::shared_ptr<std::vector<std::uint8_t>>> pool;
    for (int i = 0; i < 6; ++i) {
        pool.push_back(std::make_shared<std::vector<std::uint8_t>>(std::size_t(width) * height * 4));
    }
    const double cpuStart = threadCpuSeconds();
    double drawing = 0;
    for (int i = 0; i < count; ++i) {
        const std::int64_t due = start + i * kFrameNs;
        timespec ts{time_t(due / 1'000'000'000), long(due % 1'000'000'000)};
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
        }
        // A buffer nobody else holds any more (the writer hands pictures back when encoded).
        std::shared_ptr<std::vector<std::uint8_t>> buffer;
        for (auto& candidate : pool) {
            if (candidate.use_count() == 1) {
                buffer = candidate;
                break;
            }
        }
        if (!buffer) {
            buffer = std::make_shared<std::vector<std::uint8_t>>(std::size_t(width) * height * 4);
        }
        const double before = threadCpuSeconds();
        animation.draw(i, *buffer);
        drawing += threadCpuSeconds() - before;
        VideoFrame frame;
        frame.width = width;
        frame.height = height;
        frame.stride = width * 4;
        frame.pixels = buffer;
        frame.captureTimeNs = monotonicNs();
        deliver(frame);
    }
    (void)drawing;
    return threadCpuSeconds() - cpuStart;
}

Figures runWriter(const Animation& animation, int width, int height, int count,
                  const std::string& path) {
    Figures f;
    f.name = "CaptureWriter + FfmpegVideoEncoder";
    CaptureEncoding encoding{CaptureGeometry{width, height},
                             CaptureEncoding::bitrateFor(width, height),
                             std::int64_t(width) * height > CaptureEncoding::hardwarePixelCount};
    encoding.requiresHardware = false;  // the benchmark measures the software path
    const double baselineMb = currentRssMb();  // the animation's page, before any frame
    const double cpuBefore = processCpuSeconds(RUSAGE_SELF);
    CaptureWriter writer(path, encoding, std::make_unique<FfmpegVideoEncoder>());
    const std::int64_t start = monotonicNs() + 50'000'000;
    const double generatorCpu = offerFrames(animation, width, height, count, start,
                                            [&](const VideoFrame& frame) { writer.append(frame); });
    const std::int64_t end = monotonicNs();
    writer.finish(end);
    const double cpu = processCpuSeconds(RUSAGE_SELF) - cpuBefore - generatorCpu;
    const auto c = writer.counters();
    f.recordedSeconds = (end - start) / 1e9;
    f.offered = count;
    f.delivered = c.framesAppended;
    f.shed = c.framesShed;
    f.cpuSeconds = cpu;
    f.peakRssMb = peakRssMb(0);
    std::printf("  writer: peak RSS includes %.1f MB before the writer opened and the generator's "
                "frame pool (6 frames)\n", baselineMb);
    std::printf("  writer: encode mean %.2f ms, max %.2f ms per frame; generator %.2f CPU s "
                "(excluded)\n",
                c.framesAppended ? c.encodeNsTotal / 1e6 / c.framesAppended : 0.0,
                c.encodeNsMax / 1e6, generatorCpu);
    return f;
}

// The same frames piped to the ffmpeg tool with the same settings.
Figures runReference(const Animation& animation, int width, int height, int count,
                     const std::string& path) {
    Figures f;
    f.name = "ffmpeg tool (rawvideo pipe, libx264)";
    const std::int64_t bitrate = CaptureEncoding::bitrateFor(width, height);
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    const std::string command =
        "exec ffmpeg -nostdin -loglevel error -y -f rawvideo -pix_fmt bgra -s " + size +
        " -r 60 -i - -c:v libx264 -preset veryfast -tune zerolatency -profile:v high -bf 0 -g 120"
        " -b:v " + std::to_string(bitrate) + " -maxrate " + std::to_string(2 * bitrate) +
        " -bufsize " + std::to_string(2 * bitrate) +
        " -pix_fmt yuv420p -color_primaries bt709 -color_trc bt709 -colorspace bt709"
        " -color_range tv -movflags frag_keyframe+empty_moov+default_base_moof '" + path + "'";
    std::signal(SIGPIPE, SIG_IGN);
    int fds[2];
    if (pipe(fds) != 0) {
        f.name += " — could not start";
        return f;
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(fds[0], 0);
        close(fds[0]);
        close(fds[1]);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[0]);
    const double childBefore = processCpuSeconds(RUSAGE_CHILDREN);
    const double selfBefore = processCpuSeconds(RUSAGE_SELF);
    const std::int64_t start = monotonicNs() + 50'000'000;
    std::int64_t written = 0;
    const double generatorCpu =
        offerFrames(animation, width, height, count, start, [&](const VideoFrame& frame) {
            const std::uint8_t* p = frame.pixels->data();
            std::size_t left = frame.pixels->size();
            while (left > 0) {
                const ssize_t n = write(fds[1], p, left);
                if (n <= 0) return;
                p += n;
                left -= std::size_t(n);
            }
            ++written;
        });
    const std::int64_t end = monotonicNs();
    const double pipeCpu = processCpuSeconds(RUSAGE_SELF) - selfBefore - generatorCpu;
    f.peakRssMb = peakRssMb(child);  // read before it exits: a forked child's own figure
    close(fds[1]);
    int status = 0;
    waitpid(child, &status, 0);
    f.recordedSeconds = (end - start) / 1e9;
    f.offered = count;
    f.delivered = written;
    f.cpuSeconds = processCpuSeconds(RUSAGE_CHILDREN) - childBefore;
    std::printf("  reference: feeding the pipe cost %.2f CPU s on our side (excluded)\n", pipeCpu);
    return f;
}

// Frames handed over as fast as the writer encodes them: CPU per frame and sustainable rate.
void runCapacity(const Animation& animation, int width, int height, int count,
                 const std::string& path) {
    CaptureEncoding encoding{CaptureGeometry{width, height},
                             CaptureEncoding::bitrateFor(width, height), false};
    std::vector<std::uint8_t> pixels(std::size_t(width) * height * 4);
    const double cpuBefore = processCpuSeconds(RUSAGE_SELF);
    double generatorCpu = 0;
    const std::int64_t start = monotonicNs();
    {
        CaptureWriter writer(path, encoding, std::make_unique<FfmpegVideoEncoder>());
        for (int i = 0; i < count; ++i) {
            auto buffer = std::make_shared<std::vector<std::uint8_t>>();
            const double before = threadCpuSeconds();
            buffer->resize(pixels.size());
            animation.draw(i, *buffer);
            generatorCpu += threadCpuSeconds() - before;
            VideoFrame frame{width, height, width * 4, buffer, start + i * kFrameNs, true};
            writer.append(frame);
            while (writer.counters().framesAppended < i + 1) {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        }
        writer.finish(start + count * kFrameNs);
    }
    const double wall = (monotonicNs() - start) / 1e9;
    const double cpu = processCpuSeconds(RUSAGE_SELF) - cpuBefore - generatorCpu;
    std::printf("writer capacity (frames handed over one at a time, none shed)\n");
    std::printf("  %.2f ms CPU per frame = %.3f s CPU per recorded second at 60 fps; "
                "%.1f fps sustained (%d frames in %.2f s wall)\n",
                cpu / count * 1000, cpu / count * 60, count / wall, count, wall);
}

void complete(Figures& f, const std::string& path) {
    std::error_code ec;
    f.fileMb = double(fs::file_size(path, ec)) / 1e6;
    if (auto info = MediaProbe::read(path, {true, 0})) {
        f.duration = info->durationSeconds;
        f.fileFrames = info->frameCount;
    }
}

// Figures per second of video (the file's duration): a tool that falls behind takes longer
// than real time to take the frames, which shows as wall time above the video's length.
double videoSeconds(const Figures& f) { return f.duration.value_or(f.recordedSeconds); }

void print(const Figures& f) {
    const double video = videoSeconds(f);
    std::printf("%s\n", f.name.c_str());
    std::printf("  delivered  %.2f fps (%lld of %lld frames in %.2f s of video), shed %lld\n",
                f.delivered / video, (long long)f.delivered, (long long)f.offered, video,
                (long long)f.shed);
    std::printf("  real time  frames taken over %.2f s of wall time (%s)\n", f.recordedSeconds,
                f.recordedSeconds <= video * 1.02 ? "kept up" : "fell behind: the source waited");
    std::printf("  CPU        %.3f s per recorded second (%.2f s total)\n", f.cpuSeconds / video,
                f.cpuSeconds);
    std::printf("  peak RSS   %.1f MB\n", f.peakRssMb);
    std::printf("  file       %.2f MB, %lld frames, %.3f s\n", f.fileMb, (long long)f.fileFrames,
                f.duration.value_or(-1));
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 20, width = 1920, height = 1080;
    bool reference = true;
    bool capacity = false;
    std::string keep;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--seconds" && i + 1 < argc) {
            seconds = std::atoi(argv[++i]);
        } else if (arg == "--size" && i + 1 < argc) {
            std::sscanf(argv[++i], "%dx%d", &width, &height);
        } else if (arg == "--no-reference") {
            reference = false;
        } else if (arg == "--capacity") {
            capacity = true;
        } else if (arg == "--keep" && i + 1 < argc) {
            keep = argv[++i];
        } else {
            std::fprintf(stderr,
                         "usage: %s [--seconds N] [--size WxH] [--no-reference] [--keep DIR]\n",
                         argv[0]);
            return 2;
        }
    }
    if (seconds <= 0 || width < 2 || height < 2 || width % 2 || height % 2) {
        std::fprintf(stderr, "bad arguments\n");
        return 2;
    }
    char pattern[] = "/tmp/pavix-bench-writer-XXXXXX";
    const std::string dir = keep.empty() ? std::string(mkdtemp(pattern)) : keep;
    fs::create_directories(dir);
    const int count = seconds * kRate;
    std::printf("pavix-bench-writer: %dx%d BGRA, %d frames offered at %d fps in real time, "
                "%u cores\n",
                width, height, count, kRate, std::thread::hardware_concurrency());
    const Animation animation(width, height);

    const std::string ours = dir + "/writer.mp4";
    Figures mine = runWriter(animation, width, height, count, ours);
    complete(mine, ours);
    print(mine);

    if (capacity) {
        runCapacity(animation, width, height, std::min(count, 600), dir + "/capacity.mp4");
    }
    if (reference) {
        const std::string theirs = dir + "/ffmpeg.mp4";
        Figures other = runReference(animation, width, height, count, theirs);
        complete(other, theirs);
        print(other);
        if (other.cpuSeconds > 0) {
            std::printf("ratio (writer / ffmpeg tool): CPU per recorded second %.2f, "
                        "delivered fps %.2f, wall time to take the frames %.2f\n",
                        (mine.cpuSeconds / videoSeconds(mine)) /
                            (other.cpuSeconds / videoSeconds(other)),
                        (mine.delivered / videoSeconds(mine)) /
                            (other.delivered / videoSeconds(other)),
                        mine.recordedSeconds / other.recordedSeconds);
        }
    }
    if (keep.empty()) fs::remove_all(dir);
    return 0;
}
