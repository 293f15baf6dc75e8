// Records the same animated 1920×1080 content for 20 s with Pavix (X11CaptureStream +
// CaptureWriter + FfmpegVideoEncoder) and with `ffmpeg -f x11grab … -c:v libx264`, one after the
// other on the same display, and prints delivered frames per second, dropped frames, CPU seconds
// per recorded second, peak memory and the ratios; then the CPU cost of recording a window that
// does not change. Run it under scripts/with-desktop.

#include <X11/Xlib.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "core/capture/CaptureEncoding.h"
#include "core/capture/CaptureWriter.h"
#include "linux/FfmpegVideoEncoder.h"
#include "linux/MediaProbe.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11Display.h"
#include "linux/X11Monitors.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr int width = 1920, height = 1080;
constexpr auto duration = 20s;

struct Figures {
    double fps = 0;
    long dropped = 0;
    long duplicated = -1;  // ffmpeg repeats pictures to hold its frame rate; -1: not applicable
    double cpuPerSecond = 0;
    long peakKiB = 0;
};

double cpuOf(const rusage& usage) {
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double cpuSelf() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return cpuOf(usage);
}

long peakSelfKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A 1920×1080 window at the origin in a child process, so that drawing costs this process
// nothing. When `animated` it paints a new picture 60 times a second: a colour sweep with a
// moving bar, every pixel changing.
pid_t startWindow(bool animated) {
    int channel[2];
    if (pipe(channel) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        Display* display = XOpenDisplay(nullptr);
        XSetWindowAttributes attributes{};
        attributes.override_redirect = True;
        attributes.background_pixel = 0x336699;
        Window window = XCreateWindow(display, DefaultRootWindow(display), 0, 0, width, height, 0,
                                      CopyFromParent, InputOutput, CopyFromParent,
                                      CWOverrideRedirect | CWBackPixel, &attributes);
        XMapRaised(display, window);
        GC gc = XCreateGC(display, window, 0, nullptr);
        XSync(display, False);
        [[maybe_unused]] auto written = write(channel[1], "r", 1);
        close(channel[1]);
        for (unsigned frame = 0;; ++frame) {
            if (animated) {
                XSetForeground(display, gc, (frame * 0x010203u) & 0xffffff);
                XFillRectangle(display, window, gc, 0, 0, width, height);
                XSetForeground(display, gc, 0xffffff);
                XFillRectangle(display, window, gc, int(frame * 8 % width), 0, 120, height);
                XSync(display, False);
            }
            std::this_thread::sleep_for(16'667us);  // the picture source's pace
        }
    }
    close(channel[1]);
    char byte = 0;
    if (read(channel[0], &byte, 1) != 1) {
        std::fprintf(stderr, "the window process failed\n");
        std::exit(1);
    }
    close(channel[0]);
    std::this_thread::sleep_for(300ms);  // let the first pictures land
    return child;
}

void stopChild(pid_t child) {
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

Figures recordWithPavix(const fs::path& file) {
    pavix::CaptureEncoding encoding{pavix::CaptureGeometry{width, height},
                                    pavix::CaptureEncoding::bitrateFor(width, height), false};
    double cpuBefore = cpuSelf();
    auto started = std::chrono::steady_clock::now();
    pavix::CaptureWriter writer(file.string(), encoding,
                                std::make_unique<pavix::FfmpegVideoEncoder>());
    pavix::X11CaptureStream stream;
    pavix::CaptureFilter filter;
    filter.kind = pavix::CaptureFilter::Kind::display;
    {
        pavix::X11Display connection;
        filter.displayID = pavix::X11Monitors::list(connection).at(0).id;
    }
    pavix::CaptureStreamConfig config;
    config.width = width;
    config.height = height;
    pavix::CaptureStreamHandlers handlers;
    handlers.frame = [&writer](const pavix::VideoFrame& frame) { writer.append(frame); };
    handlers.error = [](const pavix::CaptureError& error) {
        std::fprintf(stderr, "stream error %d: %s\n", error.code(), error.what());
    };
    stream.start(filter, config, handlers);
    std::this_thread::sleep_for(duration);  // the recording's length
    stream.stop();
    writer.finish(pavix::CaptureWriter::now());
    double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    auto counters = writer.counters();
    Figures figures;
    figures.fps = counters.framesAppended / std::chrono::duration<double>(duration).count();
    figures.dropped = counters.framesShed;
    figures.cpuPerSecond = (cpuSelf() - cpuBefore) / elapsed;
    figures.peakKiB = peakSelfKiB();
    return figures;
}

// The last "name=N" of ffmpeg's progress lines ("drop", "dup").
long counterFrom(const fs::path& log, const std::string& name) {
    std::ifstream in(log);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    auto at = text.rfind(name + "=");
    return at == std::string::npos ? 0 : std::atol(text.c_str() + at + name.size() + 1);
}

Figures recordWithFfmpeg(const fs::path& file, const fs::path& log) {
    const char* display = std::getenv("DISPLAY");
    std::string seconds = std::to_string(duration.count());
    auto started = std::chrono::steady_clock::now();
    pid_t child = fork();
    if (child == 0) {
        FILE* err = std::freopen(log.c_str(), "w", stderr);
        (void)err;
        execlp("ffmpeg", "ffmpeg", "-nostdin", "-loglevel", "error", "-stats", "-f", "x11grab",
               "-framerate", "60", "-video_size", "1920x1080", "-i", display, "-t", seconds.c_str(),
               "-c:v", "libx264", "-preset", "veryfast", "-tune", "zerolatency", "-bf", "0", "-g",
               "120", "-y", file.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    Figures figures;
    auto info = pavix::MediaProbe::read(file.string(), {true, 0});
    figures.dropped = counterFrom(log, "drop");
    figures.duplicated = counterFrom(log, "dup");
    if (info && info->durationSeconds && *info->durationSeconds > 0) {
        // Distinct pictures: the repeated ones carry nothing new.
        figures.fps = (info->frameCount - figures.duplicated) / *info->durationSeconds;
    }
    figures.cpuPerSecond = cpuOf(usage) / elapsed;
    figures.peakKiB = usage.ru_maxrss;
    return figures;
}

void print(const char* label, const Figures& f) {
    std::printf("%-28s %10.1f %9ld %14.3f %12ld", label, f.fps, f.dropped, f.cpuPerSecond,
                f.peakKiB);
    if (f.duplicated >= 0) {
        std::printf("   (%ld frames repeated to hold 60 fps)", f.duplicated);
    }
    std::printf("\n");
}

double ratio(double a, double b) {
    return b > 0 ? a / b : 0;
}

}  // namespace

int main() {
    if (std::getenv("DISPLAY") == nullptr) {
        std::fprintf(stderr, "no DISPLAY: run under scripts/with-desktop\n");
        return 1;
    }
    fs::path folder =
        fs::temp_directory_path() / ("pavix-capture-bench-" + std::to_string(getpid()));
    fs::create_directories(folder);

    std::printf("Animated 1920x1080 content, %lld s each, one after the other\n",
                static_cast<long long>(duration.count()));
    std::printf("%-28s %10s %9s %14s %12s\n", "", "new fps", "dropped", "cpu s per s", "peak KiB");
    pid_t animation = startWindow(true);
    auto pavixFigures = recordWithPavix(folder / "pavix.mp4");
    print("Pavix", pavixFigures);
    bool haveFfmpeg = std::system("command -v ffmpeg >/dev/null 2>&1") == 0;
    Figures ffmpegFigures;
    if (haveFfmpeg) {
        ffmpegFigures = recordWithFfmpeg(folder / "ffmpeg.mp4", folder / "ffmpeg.log");
        print("ffmpeg x11grab + libx264", ffmpegFigures);
    } else {
        std::printf("ffmpeg is not installed: no comparison\n");
    }
    stopChild(animation);
    if (haveFfmpeg) {
        std::printf("%-28s %10.2f %9s %14.2f %12.2f\n", "Pavix / ffmpeg",
                    ratio(pavixFigures.fps, ffmpegFigures.fps), "-",
                    ratio(pavixFigures.cpuPerSecond, ffmpegFigures.cpuPerSecond),
                    ratio(pavixFigures.peakKiB, ffmpegFigures.peakKiB));
    }

    pid_t still = startWindow(false);
    auto staticFigures = recordWithPavix(folder / "static.mp4");
    stopChild(still);
    std::printf("\nStatic 1920x1080 window, %lld s\n", static_cast<long long>(duration.count()));
    print("Pavix", staticFigures);
    fs::remove_all(folder);
    return 0;
}
