// Records the same 1920×1080 content with Pavix (X11CaptureStream + CaptureWriter +
// FfmpegVideoEncoder) and with `ffmpeg -f x11grab … -c:v libx264` at matched settings, one after
// the other on the same display, several times each; and encodes the frames of each Pavix
// recording of the animated picture again with libx264 alone, at Pavix's settings. Every row runs
// in a process of its own, so that its CPU time and peak memory are its own. Frames are counted
// from the files with ffprobe, the same way for both recorders. "large" is the animated picture on
// a private 2560×1440 X server, recorded at the size Pavix chooses for it. Run it under
// scripts/with-desktop.
//
//   pavix-bench-capture [--seconds N] [--repeats N]
//                       [--content animated,scrolling,video,still,popups,large]
//                       [--effort full|reduced]

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/capture/CaptureEncoding.h"
#include "core/capture/CaptureWriter.h"
#include "core/capture/EncoderBudget.h"
#include "linux/EncoderCostRecord.h"
#include "linux/FfmpegColourConversion.h"
#include "linux/FfmpegEncoderProbe.h"
#include "linux/FfmpegH264.h"
#include "linux/FfmpegVideoEncoder.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11Display.h"
#include "linux/X11FrameScaler.h"
#include "linux/X11Monitors.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

extern char** environ;

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr int width = 1920, height = 1080;

// A width and a height in pixels.
struct Size {
    int width = 1920;
    int height = 1080;
    std::string text() const { return std::to_string(width) + "x" + std::to_string(height); }
};

struct Settings {
    int seconds = 20;
    int repeats = 3;
    std::vector<std::string> contents = {"animated", "scrolling", "video",
                                         "still",    "popups",    "large"};
    std::optional<pavix::EncoderEffort> effort;  // instead of the one Pavix would choose
};

// One run of one row.
struct Run {
    double fps = 0;                         // frames in the file over the file's duration
    long frames = 0;                        // frames in the file
    long shed = -1;                         // frames the writer dropped; -1: not known
    long skipped = -1;                      // capture ticks that never came; -1: not known
    double cpu = 0;                         // CPU seconds per second recorded
    double peakMiB = 0;                     // the row's own process
    std::map<std::string, double> threads;  // CPU seconds per second by thread name
};

double cpuOf(const rusage& usage) {
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double threadCpu() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

// The CPU seconds each thread of this process has spent so far, summed by thread name. Pavix
// names its threads by their part: pavix-capture grabs, adds the cursor and converts to 4:2:0;
// pavix-encoder are libx264's slice workers; pavix-writer hands the frames to libx264, whose
// per-frame set-up runs on the calling thread, and muxes. This benchmark's own thread is
// "other". A thread that has ended is no longer listed, so this is read while recording.
std::map<std::string, double> cpuByThread() {
    const double tick = double(sysconf(_SC_CLK_TCK));
    std::map<std::string, double> spent;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::ifstream statFile(task.path() / "stat");
        std::string stat((std::istreambuf_iterator<char>(statFile)), {});
        // "TID (NAME) STATE …": the name may hold spaces and brackets, the fields follow the
        // last ')'. utime and stime are the 14th and 15th fields.
        const auto open = stat.find('('), close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos) {
            continue;
        }
        std::istringstream fields(stat.substr(close + 2));
        std::string field;
        for (int i = 3; i < 14 && fields >> field; ++i) {
        }
        double user = 0, system = 0;
        if (fields >> user >> system) {
            std::string name = stat.substr(open + 1, close - open - 1);
            const bool part = name.rfind("pavix-", 0) == 0 && name.rfind("pavix-bench", 0) != 0;
            spent[part ? name : "other"] += (user + system) / tick;
        }
    }
    return spent;
}

// The colour of the animated picture's frame `n`, and where its white bar is.
unsigned sweepColour(unsigned n) {
    return (n * 0x010203u) & 0xffffff;
}
int barAt(unsigned n, int across = width) {
    return int(n * 8 % unsigned(across));
}

// A window covering `size` at the origin, painted by a child process so that drawing costs the
// measured rows nothing. "animated": a new colour and a moving bar 60 times a second, every
// pixel changing; "scrolling": lines of text moving up 4 pixels a frame; "still": nothing;
// "popups": nothing either, and the same process shows a second window far from the first, as
// an application with a palette or a second document does. The first window's id goes to
// `recorded`.
pid_t startWindow(const std::string& content, Size size = {}, unsigned long* recorded = nullptr) {
    const int width = size.width, height = size.height;
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
        attributes.background_pixel = 0xf4f4f0;
        Window window = XCreateWindow(display, DefaultRootWindow(display), 0, 0, width, height, 0,
                                      CopyFromParent, InputOutput, CopyFromParent,
                                      CWOverrideRedirect | CWBackPixel, &attributes);
        // Both windows say whose they are, as toolkits do: that is how the application's
        // windows are told from others.
        const long self = getpid();
        Atom pidAtom = XInternAtom(display, "_NET_WM_PID", False);
        XChangeProperty(display, window, pidAtom, XA_CARDINAL, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(&self), 1);
        XMapRaised(display, window);
        if (content == "popups") {
            const int screenWidth = DisplayWidth(display, DefaultScreen(display));
            const int screenHeight = DisplayHeight(display, DefaultScreen(display));
            Window other =
                XCreateWindow(display, DefaultRootWindow(display), screenWidth - 360,
                              screenHeight - 260, 300, 200, 0, CopyFromParent, InputOutput,
                              CopyFromParent, CWOverrideRedirect | CWBackPixel, &attributes);
            XChangeProperty(display, other, pidAtom, XA_CARDINAL, 32, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(&self), 1);
            XMapRaised(display, other);
        }
        GC gc = XCreateGC(display, window, 0, nullptr);
        XSync(display, False);
        const unsigned long id = window;
        [[maybe_unused]] auto written = write(channel[1], &id, sizeof id);
        close(channel[1]);
        auto next = std::chrono::steady_clock::now();
        for (unsigned frame = 0;; ++frame) {
            if (content == "animated") {
                XSetForeground(display, gc, sweepColour(frame));
                XFillRectangle(display, window, gc, 0, 0, width, height);
                XSetForeground(display, gc, 0xffffff);
                XFillRectangle(display, window, gc, barAt(frame, width), 0, 120, height);
            } else if (content == "scrolling") {
                XCopyArea(display, window, window, gc, 0, 4, width, height - 4, 0, 0);
                XSetForeground(display, gc, 0xf4f4f0);
                XFillRectangle(display, window, gc, 0, height - 4, width, 4);
                if (frame % 5 == 0) {
                    std::string line = "Line " + std::to_string(frame / 5) +
                                       ": the quick brown fox jumps over the lazy dog, again.";
                    XSetForeground(display, gc, 0x202020);
                    XDrawString(display, window, gc, 40, height - 6, line.c_str(),
                                int(line.size()));
                }
            }
            XSync(display, False);
            next += 16'667us;  // the picture source's pace
            std::this_thread::sleep_until(next);
        }
    }
    close(channel[1]);
    unsigned long id = 0;
    if (read(channel[0], &id, sizeof id) != sizeof id) {
        std::fprintf(stderr, "the window process failed\n");
        std::exit(1);
    }
    close(channel[0]);
    if (recorded) {
        *recorded = id;
    }
    return child;
}

pid_t spawn(const std::vector<std::string>& arguments, const fs::path& log = {}) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (!log.empty()) {
        posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, log.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
    }
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int failed = posix_spawnp(&pid, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (failed != 0) {
        std::fprintf(stderr, "cannot start %s: %s\n", argv[0], std::strerror(failed));
        std::exit(1);
    }
    return pid;
}

// A window playing a video (FFmpeg's moving test picture, 60 fps) at the origin.
pid_t startVideo() {
    return spawn({"ffplay", "-loglevel", "error", "-an", "-noborder", "-left", "0", "-top", "0",
                  "-x", std::to_string(width), "-y", std::to_string(height), "-f", "lavfi", "-i",
                  "testsrc2=size=1920x1080:rate=60"});
}

void stopChild(pid_t child) {
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

// Runs `work` in a child process and returns its usage; the child sends `out` back.
rusage inChild(const std::function<std::string()>& work, std::string& out) {
    int channel[2];
    if (pipe(channel) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    std::fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        auto text = work();
        [[maybe_unused]] auto written = write(channel[1], text.data(), text.size());
        close(channel[1]);
        _exit(0);
    }
    close(channel[1]);
    char buffer[512];
    ssize_t got;
    while ((got = read(channel[0], buffer, sizeof buffer)) > 0) {
        out.append(buffer, std::size_t(got));
    }
    close(channel[0]);
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    return usage;
}

// A private X server with a 2560×1440 screen while this lives; DISPLAY names it meanwhile.
class LargeScreen {
  public:
    static constexpr Size size{2560, 1440};

    LargeScreen() : previous_(std::getenv("DISPLAY")) {
        int channel[2];
        if (pipe(channel) != 0) {
            std::perror("pipe");
            std::exit(1);
        }
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_adddup2(&files, channel[1], 3);
        const std::string screen = size.text() + "x24";
        const char* argv[] = {"Xvfb",         "-displayfd", "3",   "-screen", "0",
                              screen.c_str(), "-nolisten",  "tcp", nullptr};
        int failed =
            posix_spawnp(&server_, "Xvfb", &files, nullptr, const_cast<char**>(argv), environ);
        posix_spawn_file_actions_destroy(&files);
        close(channel[1]);
        std::string number;
        char c;
        while (!failed && read(channel[0], &c, 1) == 1 && c != '\n') {
            number += c;
        }
        close(channel[0]);
        if (failed || number.empty()) {
            std::fprintf(stderr, "Xvfb did not start\n");
            std::exit(1);
        }
        setenv("DISPLAY", (":" + number).c_str(), 1);
    }
    ~LargeScreen() {
        setenv("DISPLAY", previous_.c_str(), 1);
        stopChild(server_);
    }
    LargeScreen(const LargeScreen&) = delete;
    LargeScreen& operator=(const LargeScreen&) = delete;

  private:
    static void stopChild(pid_t child) {
        kill(child, SIGTERM);
        waitpid(child, nullptr, 0);
    }

    std::string previous_;
    pid_t server_ = -1;
};

// What Pavix records a source of `size` at on this machine, and why.
struct Choice {
    Size size{0, 0};
    pavix::EncoderEffort effort = pavix::EncoderEffort::full;
    std::string reason;  // the plan's log line
    const char* preset() const {
        return effort == pavix::EncoderEffort::full ? "veryfast" : "superfast";
    }
};

// The size and effort Pavix itself chooses for a source of `source`, the way a recording's start
// chooses them: the candidates this machine can encode, then the encoder's budget on its
// measured cost (asked in a child process, so that this one starts no encoder threads). The
// measurements of all rows are kept in `record`, as a user's runs are.
Choice chosenEncoding(Size source, const fs::path& record) {
    std::string chosen;
    inChild(
        [&] {
            pavix::FfmpegEncoderProbe probe{pavix::EncoderCostRecord(record)};
            auto plan = pavix::CaptureWriter::plan(
                pavix::CaptureEncoding::candidates(source.width, source.height, 1.0), std::nullopt,
                probe);
            if (plan.encodings.empty()) {
                return std::string("0 0 0");
            }
            const auto& first = plan.encodings.front();
            return std::to_string(first.size.width) + " " + std::to_string(first.size.height) +
                   " " + std::to_string(int(first.effort)) + " " +
                   pavix::EncoderBudget::describe(plan);
        },
        chosen);
    Choice choice;
    int effort = 0;
    std::istringstream fields(chosen);
    fields >> choice.size.width >> choice.size.height >> effort;
    choice.effort = pavix::EncoderEffort(effort);
    std::getline(fields >> std::ws, choice.reason);
    return choice;
}

// Frames and duration of a file's video, from ffprobe.
void probe(const fs::path& file, Run& run) {
    std::string command =
        "ffprobe -v error -select_streams v:0 -count_packets -show_entries "
        "stream=nb_read_packets:format=duration -of default=nw=1 '" +
        file.string() + "'";
    FILE* pipe = popen(command.c_str(), "r");
    char line[256];
    double duration = 0;
    while (pipe && std::fgets(line, sizeof line, pipe)) {
        std::sscanf(line, "nb_read_packets=%ld", &run.frames);
        std::sscanf(line, "duration=%lf", &duration);
    }
    if (pipe) {
        pclose(pipe);
    }
    run.fps = duration > 0 ? run.frames / duration : 0;
}

// Records the first display at `size` (the screen is fitted to it when it differs), or with
// `window`, that window with its pop-ups: the application's windows in the region of `size`
// at the origin, as Pavix records a window of an application it knows.
// With `tapped`, the first `tappedFrames` pictures handed to the writer are also written there,
// planes one after the other, for libx264 alone to encode the very same pictures; the CPU that
// costs is not counted.
constexpr long tappedFrames = 240;
Run recordWithPavix(const fs::path& file, const Settings& settings, const Choice& choice,
                    unsigned long window = 0, const std::optional<fs::path>& tapped = {}) {
    const int width = choice.size.width, height = choice.size.height;
    std::string report;
    auto usage = inChild(
        [&] {
            pavix::CaptureEncoding encoding{pavix::CaptureGeometry{width, height},
                                            pavix::CaptureEncoding::bitrateFor(width, height),
                                            false, choice.effort};
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
            config.layout = pavix::PixelLayout::i420;  // as a recording asks for it
            if (window != 0) {
                filter.kind = pavix::CaptureFilter::Kind::applicationRegion;
                filter.windowID = std::uint32_t(window);
                config.sourceRect = pavix::CaptureRect{0, 0, double(width), double(height)};
            }
            std::atomic<long> ticks{0};
            std::FILE* tap = tapped ? std::fopen(tapped->c_str(), "wb") : nullptr;
            long taps = 0;
            double tapCpu = 0;  // on the capture thread, the only one that touches these
            pavix::CaptureStreamHandlers handlers;
            handlers.frame = [&](const pavix::VideoFrame& frame) {
                ++ticks;
                if (tap && taps < tappedFrames && frame.holdsPicture() && frame.complete) {
                    const double before = threadCpu();
                    std::fwrite(frame.pixels->data(), 1, std::size_t(width) * height * 3 / 2, tap);
                    ++taps;
                    tapCpu += threadCpu() - before;
                }
                writer.append(frame);
            };
            handlers.error = [](const pavix::CaptureError& error) {
                std::fprintf(stderr, "stream error %d: %s\n", error.code(), error.what());
            };
            auto started = std::chrono::steady_clock::now();
            const auto before = cpuByThread();
            stream.start(filter, config, handlers);
            std::this_thread::sleep_for(std::chrono::seconds(settings.seconds));
            const auto during = cpuByThread();
            stream.stop();
            double elapsed =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            writer.finish(pavix::CaptureWriter::now());
            // Every tick of the stream calls the handler, with a picture or an idle frame.
            long expected = std::lround(elapsed * 60);
            std::ostringstream out;
            if (tap) {
                std::fclose(tap);
            }
            out << writer.counters().framesShed << " " << std::max(0L, expected - ticks.load())
                << " " << elapsed << " " << tapCpu;
            for (const auto& [name, seconds] : during) {
                const auto earlier = before.find(name);
                out << " " << name << " "
                    << (seconds - (earlier == before.end() ? 0 : earlier->second)) /
                           settings.seconds;
            }
            return out.str();
        },
        report);
    Run run;
    double elapsed = settings.seconds;
    double tapCpu = 0;
    std::istringstream fields(report);
    fields >> run.shed >> run.skipped >> elapsed >> tapCpu;
    std::string name;
    for (double seconds; fields >> name >> seconds;) {
        run.threads[name] = seconds;
    }
    run.threads["pavix-capture"] -= tapCpu / settings.seconds;
    probe(file, run);
    run.cpu = (cpuOf(usage) - tapCpu) / elapsed;
    run.peakMiB = usage.ru_maxrss / 1024.0;
    return run;
}

// ffmpeg at Pavix's settings: 4:2:0 with BT.709 limited range, the same average and peak bit
// rate, High profile, no B-frames, a key frame every 2 s, the preset of Pavix's effort, zero
// latency; each grabbed picture written once (no repeats to hold a constant rate).
Run recordWithFfmpeg(const fs::path& file, const Settings& settings, Size screen,
                     const Choice& choice) {
    const int width = choice.size.width, height = choice.size.height;
    const auto bitrate = std::to_string(pavix::CaptureEncoding::bitrateFor(width, height));
    const auto peak = std::to_string(2 * pavix::CaptureEncoding::bitrateFor(width, height));
    auto started = std::chrono::steady_clock::now();
    std::vector<std::string> arguments = {"ffmpeg", "-nostdin", "-loglevel", "error"};
    auto add = [&](std::initializer_list<std::string> more) {
        arguments.insert(arguments.end(), more);
    };
    add({"-f", "x11grab", "-framerate", "60", "-video_size", screen.text()});
    add({"-i", std::getenv("DISPLAY"), "-t", std::to_string(settings.seconds)});
    add({"-vf", "scale=" + std::to_string(width) + ":" + std::to_string(height) +
                    ":out_color_matrix=bt709:out_range=tv,format=yuv420p"});
    add({"-c:v", "libx264", "-preset", choice.preset(), "-tune", "zerolatency"});
    add({"-profile:v", "high"});
    add({"-b:v", bitrate, "-maxrate", peak, "-bufsize", peak, "-bf", "0", "-g", "120"});
    add({"-color_primaries", "bt709", "-color_trc", "bt709", "-colorspace", "bt709"});
    add({"-color_range", "tv", "-fps_mode", "passthrough", "-y", file.string()});
    pid_t child = spawn(arguments, file.string() + ".log");
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    Run run;
    probe(file, run);
    run.cpu = cpuOf(usage) / elapsed;
    run.peakMiB = usage.ru_maxrss / 1024.0;
    return run;
}

// libx264 alone, opened exactly as Pavix opens it, encoding the pictures Pavix handed its
// writer (`tapped`, the first ones of its recording) at 60 a second; reading them is not
// counted.
// The figure is its CPU per picture at Pavix's rate of new frames, `fps`.
Run encodeAlone(const fs::path& tapped, const Choice& choice, double fps) {
    const int width = choice.size.width, height = choice.size.height;
    std::string report;
    auto usage = inChild(
        [&] {
            auto failed = [](const char* what) {
                std::fprintf(stderr, "libx264 alone: %s\n", what);
                return std::string("0 0");
            };
            std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(tapped.c_str(), "rb"),
                                                               std::fclose);
            pavix::VideoEncoderSettings encoderSettings;
            encoderSettings.width = width;
            encoderSettings.height = height;
            encoderSettings.bitrate = pavix::CaptureEncoding::bitrateFor(width, height);
            encoderSettings.effort = choice.effort;
            std::string why;
            auto opened = pavix::ffmpeg::openH264(encoderSettings, true, &why);
            if (!in || !opened.context) {
                return failed(in ? why.c_str() : "no pictures to encode");
            }
            AVCodecContext* encoder = opened.context.get();
            pavix::ffmpeg::FramePtr frame(av_frame_alloc());
            pavix::ffmpeg::PacketPtr output(av_packet_alloc());
            long frames = 0;
            double reading = 0;
            auto drain = [&] {
                while (avcodec_receive_packet(encoder, output.get()) == 0) {
                    av_packet_unref(output.get());
                }
            };
            // Paced as the screen gives them, one every 1/60 s: libx264 run flat out keeps its
            // threads and caches warm, which a recording never does.
            const auto start = std::chrono::steady_clock::now();
            for (;;) {
                std::this_thread::sleep_until(start + std::chrono::microseconds(frames * 16667));
                const double before = threadCpu();
                frame->format = encoder->pix_fmt;
                frame->width = width;
                frame->height = height;
                bool whole = av_frame_get_buffer(frame.get(), 0) == 0;
                for (int plane = 0; plane < 3 && whole; ++plane) {
                    const int shift = plane == 0 ? 0 : 1;
                    for (int row = 0; row < height >> shift && whole; ++row) {
                        const std::size_t bytes = std::size_t(width >> shift);
                        whole = std::fread(frame->data[plane] + row * frame->linesize[plane], 1,
                                           bytes, in.get()) == bytes;
                    }
                }
                reading += threadCpu() - before;
                if (!whole) {
                    break;
                }
                frame->pts = frames++ * 1500;  // 1/60 s in the encoder's 1/90000 s
                avcodec_send_frame(encoder, frame.get());
                av_frame_unref(frame.get());
                drain();
            }
            avcodec_send_frame(encoder, nullptr);
            drain();
            return std::to_string(frames) + " " + std::to_string(reading);
        },
        report);
    Run run;
    double reading = 0;
    std::istringstream(report) >> run.frames >> reading;
    run.fps = fps;
    run.cpu = run.frames > 0 ? (cpuOf(usage) - reading) / double(run.frames) * fps : 0;
    run.peakMiB = usage.ru_maxrss / 1024.0;
    return run;
}

// The median and the range of one figure over the runs.
std::string spread(const std::vector<Run>& runs, double Run::*figure, int decimals) {
    std::vector<double> values;
    for (const auto& run : runs) {
        values.push_back(run.*figure);
    }
    std::sort(values.begin(), values.end());
    char text[96];
    const double median = values[values.size() / 2];
    if (values.size() == 1) {
        std::snprintf(text, sizeof text, "%.*f", decimals, median);
    } else {
        std::snprintf(text, sizeof text, "%.*f (%.*f-%.*f)", decimals, median, decimals,
                      values.front(), decimals, values.back());
    }
    return text;
}

double median(const std::vector<Run>& runs, double Run::*figure) {
    std::vector<double> values;
    for (const auto& run : runs) {
        values.push_back(run.*figure);
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string worst(const std::vector<Run>& runs, long Run::*figure) {
    long most = -1;
    for (const auto& run : runs) {
        most = std::max(most, run.*figure);
    }
    return most < 0 ? "-" : std::to_string(most);
}

// Where Pavix's CPU goes, by thread, medians over the runs.
void printThreads(const std::vector<Run>& runs, std::optional<double> converterMs) {
    std::map<std::string, std::vector<double>> byName;
    for (const auto& run : runs) {
        for (const auto& [name, seconds] : run.threads) {
            byName[name].push_back(seconds);
        }
    }
    std::printf("%-30s", "  Pavix by thread, cpu s per s");
    for (auto& [name, values] : byName) {
        std::sort(values.begin(), values.end());
        std::printf("  %s %.3f", name.c_str(), values[values.size() / 2]);
    }
    std::printf("\n");
    if (converterMs) {
        // The capture thread's share that is conversion, from the converter's own figure.
        std::printf("%-30s  of pavix-capture, 4:2:0 conversion about %.3f\n", "",
                    median(runs, &Run::fps) * *converterMs / 1000);
    }
}

void print(const char* label, const std::vector<Run>& runs) {
    std::printf("%-30s %20s %6s %8s %20s %18s\n", label, spread(runs, &Run::fps, 1).c_str(),
                worst(runs, &Run::shed).c_str(), worst(runs, &Run::skipped).c_str(),
                spread(runs, &Run::cpu, 3).c_str(), spread(runs, &Run::peakMiB, 0).c_str());
}

// CPU milliseconds per frame converted from BGRA to 4:2:0 BT.709, at the same size and reduced
// from a 2560×1440 screen: Pavix's own converter, and libswscale set up as it would be for the
// same conversion. Returns Pavix's figure at the same size.
double printConversion() {
    constexpr int rounds = 120;
    auto timed = [](const std::function<void()>& work) {
        work();  // warm
        double before = threadCpu();
        for (int i = 0; i < rounds; ++i) {
            work();
        }
        return (threadCpu() - before) * 1000 / rounds;
    };
    double same = 0;
    for (const auto& source : {std::pair{width, height}, {2560, 1440}}) {
        const int sourceWidth = source.first, sourceHeight = source.second;
        std::vector<std::uint8_t> bgra(std::size_t(sourceWidth) * sourceHeight * 4);
        for (std::size_t i = 0; i < bgra.size(); ++i) {
            bgra[i] = std::uint8_t(i * 2654435761u >> 24);
        }
        std::vector<std::uint8_t> y(std::size_t(width) * height), u(y.size() / 4), v(y.size() / 4);
        pavix::X11FrameScaler scaler;
        const double ours = timed([&] {
            scaler.scaleToI420(bgra.data(), sourceWidth, sourceHeight, sourceWidth * 4, width,
                               height, y.data(), width, u.data(), v.data(), width / 2);
        });
        SwsContext* context =
            sws_getContext(sourceWidth, sourceHeight, AV_PIX_FMT_BGRA, width, height,
                           AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
        sws_setColorspaceDetails(context, sws_getCoefficients(SWS_CS_DEFAULT), 1,
                                 sws_getCoefficients(SWS_CS_ITU709), 0, 0, 1 << 16, 1 << 16);
        const double theirs = timed([&] {
            const std::uint8_t* source[4] = {bgra.data()};
            const int sourceStride[4] = {sourceWidth * 4};
            std::uint8_t* target[4] = {y.data(), u.data(), v.data()};
            const int targetStride[4] = {width, width / 2, width / 2};
            sws_scale(context, source, sourceStride, 0, sourceHeight, target, targetStride);
        });
        sws_freeContext(context);
        std::printf(
            "BGRA %dx%d to 4:2:0 BT.709 %dx%d, CPU ms per frame: Pavix %.2f, "
            "libswscale %.2f (%.1fx)\n",
            sourceWidth, sourceHeight, width, height, ours, theirs, theirs / std::max(1e-9, ours));
        if (sourceWidth == width) {
            same = ours;
        }
    }
    return same;
}

Settings parse(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (option == "--seconds" && value) {
            settings.seconds = std::max(1, std::atoi(value));
        } else if (option == "--repeats" && value) {
            settings.repeats = std::max(1, std::atoi(value));
        } else if (option == "--effort" && value &&
                   (std::string(value) == "full" || std::string(value) == "reduced")) {
            settings.effort = std::string(value) == "full" ? pavix::EncoderEffort::full
                                                           : pavix::EncoderEffort::reduced;
        } else if (option == "--content" && value) {
            settings.contents.clear();
            std::stringstream list(value);
            for (std::string item; std::getline(list, item, ',');) {
                settings.contents.push_back(item);
            }
        } else {
            std::fprintf(stderr,
                         "usage: pavix-bench-capture [--seconds N] [--repeats N] "
                         "[--content animated,scrolling,video,still,popups,large] "
                         "[--effort full|reduced]\n");
            std::exit(2);
        }
        ++i;
    }
    return settings;
}

}  // namespace

int main(int argc, char** argv) {
    const Settings settings = parse(argc, argv);
    if (std::getenv("DISPLAY") == nullptr) {
        std::fprintf(stderr, "no DISPLAY: run under scripts/with-desktop\n");
        return 1;
    }
    if (std::system("command -v ffmpeg >/dev/null 2>&1 && command -v ffprobe >/dev/null 2>&1")) {
        std::fprintf(stderr, "ffmpeg and ffprobe are needed: apt-get install ffmpeg\n");
        return 1;
    }
    fs::path folder =
        fs::temp_directory_path() / ("pavix-capture-bench-" + std::to_string(getpid()));
    fs::create_directories(folder);
    // The pictures libx264 alone encodes again go to memory where there is a tmpfs: written to
    // a disk, their writing back would compete with the recording they are taken from.
    std::error_code noShm;
    const fs::path pictures =
        fs::is_directory("/dev/shm", noShm)
            ? fs::path("/dev/shm") / ("pavix-capture-bench-" + std::to_string(getpid()))
            : folder;
    fs::create_directories(pictures);

    std::printf(
        "1920x1080 content unless said, %d s a run, %d runs a row, one after the other; median "
        "(lowest-highest)\nshed: frames the writer dropped; skipped: capture ticks that "
        "never came (worst run)\n",
        settings.seconds, settings.repeats);
    const double converterMs = printConversion();
    for (const auto& content : settings.contents) {
        // "large": the animated picture on a 2560x1440 screen, recorded at the size Pavix
        // chooses for it.
        std::optional<LargeScreen> large;
        Size screen, size;
        unsigned long recorded = 0;
        if (content == "popups") {
            screen = size = Size{1280, 720};
        }
        if (content == "large") {
            large.emplace();
            screen = size = LargeScreen::size;
        }
        // Every row records at the size and effort a recording of that source would choose.
        Choice choice = chosenEncoding(size, folder / "encoder-cost.json");
        if (choice.size.width == 0) {
            std::printf("\n%s: no size of a %s source can be encoded here\n", content.c_str(),
                        size.text().c_str());
            continue;
        }
        pid_t source = content == "video"   ? startVideo()
                       : content == "large" ? startWindow("animated", screen)
                                            : startWindow(content, size, &recorded);
        std::this_thread::sleep_for(1s);  // let the first pictures land
        std::printf("\n%s\n", content.c_str());
        if (large) {
            std::printf("a %s screen\n", screen.text().c_str());
        }
        std::printf("%s (preset %s)\n", choice.reason.c_str(), choice.preset());
        if (settings.effort && *settings.effort != choice.effort) {
            choice.effort = *settings.effort;
            std::printf("recorded at %s effort instead (preset %s), as asked\n",
                        choice.effort == pavix::EncoderEffort::full ? "full" : "reduced",
                        choice.preset());
        }
        if (content == "popups") {
            std::printf(
                "a still %s window recorded with its pop-ups; its process has a second window "
                "outside the region\n",
                size.text().c_str());
        }
        std::printf("%-30s %20s %6s %8s %20s %18s\n", "", "new fps", "shed", "skipped",
                    "cpu s per s", "peak MiB");
        std::vector<Run> ours, theirs;
        for (int i = 0; i < settings.repeats; ++i) {
            const auto name = std::to_string(i) + ".mp4";
            ours.push_back(recordWithPavix(
                folder / ("pavix-" + name), settings, choice, content == "popups" ? recorded : 0,
                content == "animated" ? std::optional(pictures / (std::to_string(i) + ".yuv"))
                                      : std::nullopt));
            theirs.push_back(
                recordWithFfmpeg(folder / ("ffmpeg-" + name), settings, screen, choice));
        }
        stopChild(source);
        print("Pavix", ours);
        printThreads(ours, large ? std::nullopt : std::optional(converterMs));
        print("ffmpeg x11grab, same settings", theirs);
        const double ourCpu = median(ours, &Run::cpu);
        std::printf("%-30s %20.2f %6s %8s %20.2f %18.2f\n", "Pavix / ffmpeg",
                    median(ours, &Run::fps) / std::max(1e-9, median(theirs, &Run::fps)), "", "",
                    ourCpu / std::max(1e-9, median(theirs, &Run::cpu)),
                    median(ours, &Run::peakMiB) / std::max(1e-9, median(theirs, &Run::peakMiB)));
        if (content == "animated") {
            std::vector<Run> alone;
            for (int i = 0; i < settings.repeats; ++i) {
                const auto tapped = pictures / (std::to_string(i) + ".yuv");
                alone.push_back(encodeAlone(tapped, choice, ours[i].fps));
                fs::remove(tapped);
            }
            print("libx264 alone, same frames", alone);
            std::printf("%-30s %20s %6s %8s %20.2f\n", "Pavix / libx264 alone", "", "", "",
                        ourCpu / std::max(1e-9, median(alone, &Run::cpu)));
        }
        for (const auto& entry : fs::directory_iterator(folder)) {
            const auto extension = entry.path().extension();
            if (extension == ".mp4" || extension == ".log" || extension == ".yuv") {
                fs::remove(entry.path());
            }
        }
    }
    fs::remove_all(folder);
    fs::remove_all(pictures);
    return 0;
}
