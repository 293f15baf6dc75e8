// What the application's window costs, printed beside its peers in one run:
//  - launch to the first window shown, for `pavix` and for a bare Qt window (this program with
//    --bare), each started five times on a fresh home;
//  - the model executor's longest stall and the CPU of the whole process with the main window
//    closed and open, idle and while a recording of the 1920×1080 display with moving content
//    runs, so that what the window adds is the difference of two columns.
// Run it under scripts/with-desktop.
#include <QApplication>
#include <QEventLoop>
#include <QTimer>
#include <QWidget>
#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/session/Studio.h"
#include "devserver/DevServer.h"
#include "ui/LinuxEnvironment.h"
#include "ui/ModelThread.h"
#include "ui/StudioBridge.h"
#include "ui/StudioView.h"
#include "ui/Theme.h"

// Xlib after Qt: its macros (Bool, Status, None) break Qt's headers.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;
namespace ds = pavix::devserver;

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "pavix-bench-window: %s\n", why.c_str());
    std::exit(1);
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

fs::path scratch(const char* name) {
    std::string pattern = (fs::temp_directory_path() / name).string() + ".XXXXXX";
    if (!::mkdtemp(pattern.data())) {
        fail("cannot create a folder in " + fs::temp_directory_path().string());
    }
    return pattern;
}

// The XDG folders of a fresh user under `home`.
std::map<std::string, std::string> freshUser(const fs::path& home) {
    return {{"HOME", home.string()},
            {"XDG_CONFIG_HOME", (home / ".config").string()},
            {"XDG_DATA_HOME", (home / ".local/share").string()},
            {"XDG_STATE_HOME", (home / ".local/state").string()},
            {"XDG_CACHE_HOME", (home / ".cache").string()}};
}

pid_t spawn(const std::vector<std::string>& arguments,
            const std::map<std::string, std::string>& overrides) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        std::string line = *entry;
        if (!overrides.count(line.substr(0, line.find('=')))) {
            environment.push_back(line);
        }
    }
    for (const auto& [name, value] : overrides) {
        environment.push_back(name + "=" + value);
    }
    std::vector<char*> argv, envp;
    for (const auto& a : arguments) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    for (const auto& e : environment) {
        envp.push_back(const_cast<char*>(e.c_str()));
    }
    envp.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), envp.data()) != 0) {
        fail("cannot start " + arguments[0]);
    }
    return pid;
}

// Watches the window manager's client list for the first window of a process to be shown.
class FirstWindow {
  public:
    FirstWindow() : display_(XOpenDisplay(nullptr)) {
        if (!display_) {
            fail("no display; run it under scripts/with-desktop");
        }
        // A client may go between listing it and reading its properties; its errors say
        // nothing worth ending the benchmark for.
        XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });
        root_ = DefaultRootWindow(display_);
        clients_ = XInternAtom(display_, "_NET_CLIENT_LIST", False);
        pidAtom_ = XInternAtom(display_, "_NET_WM_PID", False);
        XSelectInput(display_, root_, PropertyChangeMask);
    }
    ~FirstWindow() { XCloseDisplay(display_); }

    // Milliseconds from `start` until a window of `pid` is managed and viewable.
    std::optional<double> await(pid_t pid, Clock::time_point start, std::chrono::seconds limit) {
        const auto deadline = start + limit;
        std::vector<Window> watched;
        while (Clock::now() < deadline) {
            for (Window w : clientsOf(pid)) {
                if (viewable(w)) {
                    return msSince(start);
                }
                if (std::find(watched.begin(), watched.end(), w) == watched.end()) {
                    XSelectInput(display_, w, StructureNotifyMask);  // its MapNotify wakes us
                    watched.push_back(w);
                }
            }
            XFlush(display_);
            while (XPending(display_)) {
                XEvent event;
                XNextEvent(display_, &event);
            }
            pollfd fd{ConnectionNumber(display_), POLLIN, 0};
            ::poll(&fd, 1, 50);
        }
        return std::nullopt;
    }

  private:
    std::vector<Window> clientsOf(pid_t pid) {
        std::vector<Window> found;
        for (Window w : property(root_, clients_, XA_WINDOW)) {
            auto owner = property(w, pidAtom_, XA_CARDINAL);
            if (!owner.empty() && static_cast<pid_t>(owner[0]) == pid) {
                found.push_back(w);
            }
        }
        return found;
    }
    bool viewable(Window w) {
        XWindowAttributes attributes{};
        return XGetWindowAttributes(display_, w, &attributes) && attributes.map_state == IsViewable;
    }
    std::vector<unsigned long> property(Window w, Atom name, Atom type) {
        Atom actual = 0;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char* data = nullptr;
        std::vector<unsigned long> values;
        if (XGetWindowProperty(display_, w, name, 0, 4096, False, type, &actual, &format, &count,
                               &after, &data) == Success &&
            data && format == 32) {
            auto* items = reinterpret_cast<unsigned long*>(data);
            values.assign(items, items + count);
        }
        if (data) {
            XFree(data);
        }
        return values;
    }

    Display* display_;
    Window root_;
    Atom clients_, pidAtom_;
};

struct Launches {
    double best = 0, median = 0;
    int shown = 0;
};

Launches launch(const std::vector<std::string>& arguments, int rounds) {
    FirstWindow watcher;
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        auto home = scratch("pavix-bench-window-home");
        const auto start = Clock::now();
        pid_t pid = spawn(arguments, freshUser(home));
        auto shown = watcher.await(pid, start, 30s);
        ::kill(pid, SIGTERM);
        int status = 0;
        ::waitpid(pid, &status, 0);
        fs::remove_all(home);
        if (shown) {
            times.push_back(*shown);
        }
    }
    Launches result;
    result.shown = static_cast<int>(times.size());
    if (!times.empty()) {
        std::sort(times.begin(), times.end());
        result.best = times.front();
        result.median = times[times.size() / 2];
    }
    return result;
}

// The model executor's lateness: a timer every millisecond, and how late its handler ran. The
// longest lateness is the longest time the executor was busy with something else.
class StallProbe {
  public:
    explicit StallProbe(asio::any_io_executor executor) : timer_(executor) {}
    void start() { arm(); }
    void stop() { timer_.cancel(); }
    void reset() { longestNs_ = 0; }
    double longestMs() const { return longestNs_ / 1e6; }

  private:
    void arm() {
        timer_.expires_after(1ms);
        timer_.async_wait([this](std::error_code error) {
            if (error) {
                return;
            }
            auto late =
                std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - timer_.expiry())
                    .count();
            if (late > longestNs_) {
                longestNs_ = late;
            }
            arm();
        });
    }

    asio::steady_timer timer_;
    std::atomic<std::int64_t> longestNs_{0};
};

// Lets the window thread run for `duration`.
void runFor(std::chrono::milliseconds duration) {
    QEventLoop loop;
    QTimer::singleShot(duration, &loop, &QEventLoop::quit);
    loop.exec();
}

// Runs the window thread until `done` holds; false when `limit` passed first.
bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        runFor(20ms);
    }
    return true;
}

struct Phase {
    double cpuPerSecond = 0;
    double stallMs = 0;
};

Phase measure(StallProbe& probe, std::chrono::seconds duration) {
    probe.reset();
    const double cpu = cpuSeconds();
    const auto start = Clock::now();
    runFor(duration);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    return {(cpuSeconds() - cpu) / wall, probe.longestMs()};
}

int bareWindow(int argc, char** argv) {
    QApplication app(argc, argv);
    QWidget window;
    window.setWindowTitle("Bare Qt window");
    window.resize(520, 400);
    window.show();
    return app.exec();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--bare") {
        return bareWindow(argc, argv);
    }
    constexpr int rounds = 5;
    const auto pavixLaunch = launch({PAVIX_BINARY}, rounds);
    const auto bareLaunch = launch({"/proc/self/exe", "--bare"}, rounds);

    // The rest runs in this process, as the application does, on a fresh home.
    const auto home = scratch("pavix-bench-window-user");
    for (const auto& [name, value] : freshUser(home)) {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    fs::create_directories(home / ".config");
    QApplication app(argc, argv);
    pavix::Theme::apply(app);

    ds::Options options;
    options.port = 0;
    options.dataDir = (home / "service").string();
    options.printCode = false;
    options.pollHoldMs = 1000;
    ds::DevServer server(options);
    server.start();

    pid_t content =
        spawn({PAVIX_DEMO_WINDOW_BINARY, "--title", "Moving content", "--size", "1920x1080"}, {});

    pavix::ModelThread model;
    pavix::LinuxEnvironment platform;
    auto environment = platform.studio(model.executor());
    pavix::Studio studio(environment);
    studio.setServer(server.baseUrl());
    studio.loadLibrary();
    pavix::StudioBridge bridge(studio, model.executor());
    pavix::StudioView window(bridge, environment.libraryFolder);
    StallProbe probe(model.executor());
    model.start();
    asio::post(model.executor(), [&probe] { probe.start(); });

    // Paired, then not sharing, with the whole display selected: the user may record it.
    bool ready = false;
    const std::string code = server.tokens().createCode().code;
    bridge.spawn(
        [code](pavix::Studio& s) -> asio::awaitable<void> {
            s.setCode(code);
            co_await s.pair();
            co_await s.disconnect("Disconnected.");
            co_await s.refreshSources();
            for (const auto& source : s.state().sources) {
                if (source.isDisplay()) {
                    s.selectSource(source.id);
                }
            }
        },
        [&ready] { ready = true; });
    if (!runUntil([&] { return ready; }, 60s) || !bridge.snapshot().state.paired ||
        bridge.snapshot().state.selection.rfind("display-", 0) != 0) {
        fail("could not pair with the development service and select the display: " +
             bridge.snapshot().state.status);
    }
    runFor(2s);  // the demo window and the service settle

    auto idle = [&] { return measure(probe, 8s); };
    auto recording = [&] {
        bridge.spawn([](pavix::Studio& s) { return s.recordNow(); });
        if (!runUntil([&] { return bridge.snapshot().state.recording; }, 30s)) {
            fail("the recording did not start: " + bridge.snapshot().state.status);
        }
        runFor(1s);  // past the start
        auto phase = measure(probe, 12s);
        bridge.spawn([](pavix::Studio& s) { return s.stopAnyRecording(); });
        if (!runUntil(
                [&] {
                    const auto& s = bridge.snapshot();
                    return s.phase == pavix::RecordingLifecycle::Phase::idle && !s.state.busy;
                },
                120s)) {
            fail("the recording did not end: " + bridge.snapshot().state.status);
        }
        return phase;
    };

    const Phase idleClosed = idle();
    const Phase recordingClosed = recording();
    window.show();
    runFor(1s);
    const Phase idleOpen = idle();
    const Phase recordingOpen = recording();
    window.hide();

    asio::post(model.executor(), [&probe] { probe.stop(); });
    model.stop();
    ::kill(content, SIGTERM);
    ::waitpid(content, nullptr, 0);
    server.stop();
    fs::remove_all(home);

    std::printf("launch to the first window shown (%d launches each, fresh home)\n", rounds);
    std::printf("  %-28s best %7.0f ms  median %7.0f ms  (%d shown)\n", "pavix (the floating bar)",
                pavixLaunch.best, pavixLaunch.median, pavixLaunch.shown);
    std::printf("  %-28s best %7.0f ms  median %7.0f ms  (%d shown)\n", "a bare Qt window",
                bareLaunch.best, bareLaunch.median, bareLaunch.shown);
    std::printf("\nthe main window, closed and open (whole process; %s, 1920x1080 display)\n",
                "preview on while idle");
    std::printf("  %-34s %14s %14s %14s\n", "", "window closed", "window open", "the window adds");
    std::printf("  %-34s %14.3f %14.3f %14.3f\n", "idle: CPU seconds per second",
                idleClosed.cpuPerSecond, idleOpen.cpuPerSecond,
                idleOpen.cpuPerSecond - idleClosed.cpuPerSecond);
    std::printf("  %-34s %11.1f ms %11.1f ms\n", "idle: model's longest stall", idleClosed.stallMs,
                idleOpen.stallMs);
    std::printf("  %-34s %14.3f %14.3f %14.3f\n", "recording: CPU seconds per second",
                recordingClosed.cpuPerSecond, recordingOpen.cpuPerSecond,
                recordingOpen.cpuPerSecond - recordingClosed.cpuPerSecond);
    std::printf("  %-34s %11.1f ms %11.1f ms\n", "recording: model's longest stall",
                recordingClosed.stallMs, recordingOpen.stallMs);
    return 0;
}
