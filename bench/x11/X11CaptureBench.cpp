// Measures the X11 capture stream: a 1920×1080 window that changes every frame, the same window
// standing still, the whole display, and — when ffmpeg is installed — `ffmpeg -f x11grab` on
// the same display for comparison. Prints delivered frames per second, CPU seconds per second
// of capture and the peak resident memory. Run it under scripts/with-desktop.

#include <X11/Xlib.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "linux/X11CaptureStream.h"
#include "linux/X11Display.h"
#include "linux/X11Monitors.h"

namespace {

using namespace std::chrono_literals;
using pavix::CaptureFilter;
using pavix::CaptureStreamConfig;
using pavix::VideoFrame;

constexpr int width = 1920, height = 1080;
constexpr auto duration = 10s;

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long peakRssKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A full-screen window in a child process, so that drawing it costs this process nothing. When
// `animated`, it paints a new picture 60 times a second (a colour sweep with a moving bar, every
// pixel changing, the worst case for a capture). Answers the child's pid; the window id arrives
// through the pipe.
pid_t startWindow(bool animated, Window& window) {
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
        attributes.override_redirect = True;  // exactly 1920×1080 at the origin, no decorations
        attributes.background_pixel = 0x336699;
        Window made = XCreateWindow(display, DefaultRootWindow(display), 0, 0, width, height, 0,
                                    CopyFromParent, InputOutput, CopyFromParent,
                                    CWOverrideRedirect | CWBackPixel, &attributes);
        XMapRaised(display, made);
        GC gc = XCreateGC(display, made, 0, nullptr);
        XSync(display, False);
        [[maybe_unused]] auto written = write(channel[1], &made, sizeof made);
        close(channel[1]);
        for (unsigned frame = 0;; ++frame) {
            if (animated) {
                XSetForeground(display, gc, (frame * 0x010203u) & 0xffffff);
                XFillRectangle(display, made, gc, 0, 0, width, height);
                XSetForeground(display, gc, 0xffffff);
                XFillRectangle(display, made, gc, int(frame * 8 % width), 0, 120, height);
                XSync(display, False);
            }
            // Pacing of the picture source, not waiting on anything.
            std::this_thread::sleep_for(std::chrono::microseconds(16'667));
        }
    }
    close(channel[1]);
    if (read(channel[0], &window, sizeof window) != sizeof window) {
        std::fprintf(stderr, "the window process failed\n");
        std::exit(1);
    }
    close(channel[0]);
    return child;
}

void stopChild(pid_t child) {
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

void measure(const char* label, const CaptureFilter& filter) {
    std::atomic<long> complete{0}, idle{0};
    std::atomic<long> checksum{0};
    pavix::X11CaptureStream stream;
    CaptureStreamConfig config;
    config.width = width;
    config.height = height;
    pavix::CaptureStreamHandlers handlers;
    handlers.frame = [&](const VideoFrame& frame) {
        if (frame.complete) {
            ++complete;
            checksum += (*frame.pixels)[frame.pixels->size() / 2];  // touch the picture
        } else {
            ++idle;
        }
    };
    handlers.error = [&](const pavix::CaptureError& error) {
        std::fprintf(stderr, "%s: stream error %d: %s\n", label, error.code(), error.what());
    };
    double cpuBefore = cpuSeconds(RUSAGE_SELF);
    auto started = std::chrono::steady_clock::now();
    stream.start(filter, config, handlers);
    std::this_thread::sleep_for(duration);
    stream.stop();
    double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    double cpu = cpuSeconds(RUSAGE_SELF) - cpuBefore;
    std::printf("%-34s %8.1f %8.1f %10.3f %10ld\n", label, complete / elapsed, idle / elapsed,
                cpu / elapsed, peakRssKiB());
}

void measureFfmpeg() {
    if (std::system("command -v ffmpeg >/dev/null 2>&1") != 0) {
        std::printf("%-34s (ffmpeg not installed)\n", "ffmpeg x11grab, animated");
        return;
    }
    const char* display = std::getenv("DISPLAY");
    std::string seconds = std::to_string(duration.count());
    pid_t child = fork();
    if (child == 0) {
        execlp("ffmpeg", "ffmpeg", "-loglevel", "error", "-f", "x11grab", "-framerate", "60",
               "-video_size", "1920x1080", "-i", display, "-t", seconds.c_str(), "-f", "null", "-",
               static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    double cpu = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                 (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    std::printf("%-34s %8s %8s %10.3f %10ld\n", "ffmpeg x11grab, animated (grab only)", "-", "-",
                cpu / duration.count(), usage.ru_maxrss);
}

}  // namespace

int main() {
    if (std::getenv("DISPLAY") == nullptr) {
        std::fprintf(stderr, "no DISPLAY; run under scripts/with-desktop\n");
        return 1;
    }
    std::printf("capture of 1920x1080 for %lld s each, 60 fps asked\n",
                static_cast<long long>(duration.count()));
    std::printf("%-34s %8s %8s %10s %10s\n", "source", "fps", "idle/s", "cpu s/s", "peak KiB");
    try {
        Window window = None;
        CaptureFilter filter;
        filter.kind = CaptureFilter::Kind::window;

        pid_t animated = startWindow(true, window);
        filter.windowID = static_cast<std::uint32_t>(window);
        measure("window, animated", filter);
        // The first stream of a process has cost about three times as much CPU as later ones
        // on our machines (fresh mmap-backed buffers); the second run shows the steady state.
        measure("window, animated, second run", filter);

        pavix::X11Display connection;
        CaptureFilter display;
        display.kind = CaptureFilter::Kind::display;
        display.displayID = pavix::X11Monitors::list(connection).at(0).id;
        measure("display, animated", display);
        measureFfmpeg();
        stopChild(animated);

        pid_t still = startWindow(false, window);
        filter.windowID = static_cast<std::uint32_t>(window);
        measure("window, static", filter);
        stopChild(still);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "benchmark failed: %s\n", error.what());
        return 1;
    }
    return 0;
}
