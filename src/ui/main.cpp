// Qt first: Xlib defines macros (Bool, Status) that Qt's headers refuse to follow.
#include "ui/QtDefaults.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <cstdio>
#include <iostream>

#include "core/app/CommandLine.h"
#include "core/capture/CaptureError.h"
#include "core/capture/CaptureSources.h"
#include "core/runtime/StreamLog.h"
#include "core/session/Studio.h"
#include "linux/FallbackSecretStore.h"
#include "linux/FfmpegEncoderProbe.h"
#include "linux/FfmpegMediaReader.h"
#include "linux/FfmpegPngEncoder.h"
#include "linux/FfmpegVideoEncoder.h"
#include "linux/FileSecretStore.h"
#include "linux/GioTrash.h"
#include "linux/LibsecretStore.h"
#include "linux/Permissions.h"
#include "linux/StatvfsVolume.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11Clipboard.h"
#include "linux/X11ShareableContent.h"
#include "linux/X11WindowLayers.h"
#include "linux/XdgFolders.h"
#include "ui/LibraryCommands.h"
#include "ui/StatusLine.h"
#include "ui/StudioWait.h"

using namespace pavix;

namespace {

// Without an X server there is nothing to list; every listing reports why.
class UnavailableContent : public ShareableContent {
  public:
    explicit UnavailableContent(std::string reason) : reason_(std::move(reason)) {}
    ShareableContentSnapshot current() override {
        throw CaptureError(CaptureError::kFailedToStart, reason_);
    }

  private:
    std::string reason_;
};

std::unique_ptr<ShareableContent> shareableContent(Log& log) {
    try {
        return std::make_unique<X11ShareableContent>();
    } catch (const std::exception& e) {
        log.line(std::string("no display to record: ") + e.what());
        return std::make_unique<UnavailableContent>(e.what());
    }
}

// The layer track needs the window system; without it recordings go on without layers.
std::unique_ptr<WindowLayers> windowLayers(Log& log) {
    try {
        return std::make_unique<X11WindowLayers>();
    } catch (const std::exception& e) {
        log.line(std::string("no window list for layers: ") + e.what());
        return nullptr;
    }
}

// The clipboard needs the window system; without it the support summary cannot be copied.
std::unique_ptr<Clipboard> clipboard(Log& log) {
    try {
        return std::make_unique<X11Clipboard>();
    } catch (const std::exception& e) {
        log.line(std::string("no clipboard: ") + e.what());
        return nullptr;
    }
}

// The system and its kernel, as the support summary names them.
std::string osVersion() {
    utsname names{};
    if (::uname(&names) != 0) {
        return "unknown";
    }
    return std::string(names.sysname) + " " + names.release;
}

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "computer";
    }
    return name;
}

const char* flag(bool value) {
    return value ? "true" : "false";
}

// The command-line pairing run: report permissions, pair, pick the default source, report.
asio::awaitable<void> pairingRun(Studio& studio, asio::io_context& io, int& exitCode) {
    co_await studio.refreshSources();
    say(std::string("screen recording ") + flag(Permissions::screenRecording()) +
        " accessibility " + flag(Permissions::accessibility()) + " control setting " +
        flag(studio.state().allowControl));
    co_await studio.pair();
    if (studio.state().selection.empty()) {
        if (auto source = CaptureSources::defaultSource(studio.state().sources, std::nullopt)) {
            studio.selectSource(source->id);
        }
    }
    const auto& state = studio.state();
    say("sources " + std::to_string(state.sources.size()) + " selected " +
        (state.selection.empty() ? "none" : state.selection));
    say(std::string("connected ") + flag(state.connected));
    if (!state.connected) {
        say(state.status);
        exitCode = 1;
        io.stop();
    }
}

// The user's own recording from the command line: the last chosen source, recorded until
// Ctrl-C or the service's length limit, then finished and uploaded.
asio::awaitable<void> recordRun(Studio& studio, asio::io_context& io, int& exitCode) {
    co_await studio.refreshSources();
    if (studio.state().selection.empty()) {
        studio.selectDefaultSource();
    }
    if (!studio.state().paired) {
        say("Pair this computer with your agent first.");
        exitCode = 1;
        io.stop();
        co_return;
    }
    co_await studio.recordNow();
    if (!studio.state().recording) {
        say(studio.state().status);
        exitCode = 1;
        io.stop();
        co_return;
    }
    say("recording " + studio.state().recordingSource + "; press Ctrl-C to stop");
    co_await untilState(studio, [](const StudioState& s) { return !s.manual; });
    say(studio.state().status);
    const auto& current = studio.current();
    exitCode = current && current->stage == LocalCapture::Stage::uploaded ? 0 : 1;
    io.stop();
}

// The one-shot library commands: each prints its outcome and ends the process.
asio::awaitable<void> libraryRun(Studio& studio, const CommandLine& options, asio::io_context& io,
                                 int& exitCode) {
    if (options.library) {
        LibraryCommands::list(studio, std::cout);
    } else if (options.support) {
        std::cout << studio.supportBundle() << "\n";
    } else if (options.retry) {
        exitCode = co_await LibraryCommands::retry(studio, *options.retry);
    } else if (options.remove) {
        exitCode = co_await LibraryCommands::remove(studio, *options.remove);
    }
    io.stop();
}

}  // namespace

int main(int argc, char** argv) {
    CommandLine options;
    try {
        options = CommandLine::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::invalid_argument& e) {
        std::cerr << "pavix: " << e.what() << "\n" << CommandLine::usage();
        return 64;
    }
    if (options.help) {
        std::cout << CommandLine::usage();
        return 0;
    }
    if (options.version) {
        std::cout << "pavix " << PAVIX_VERSION << "\n";
        return 0;
    }

    asio::io_context io;
    asio::thread_pool pool(4);
    StreamLog log;
    HttpClient http;
    Timing timing;
    auto stateFolder = XdgFolders::state();
    FallbackSecretStore secrets(std::make_unique<LibsecretStore>(timing.keychainTimeout),
                                std::make_unique<FileSecretStore>(stateFolder / "credentials"),
                                (stateFolder / "credentials").string(), log);
    QtDefaults defaults;
    auto content = shareableContent(log);
    StatvfsVolume volume;
    FfmpegEncoderProbe encoderProbe;
    FfmpegMediaReader mediaReader;
    FfmpegPngEncoder pngEncoder;
    auto layers = windowLayers(log);
    GioTrash trash;
    auto sharedClipboard = clipboard(log);

    StudioEnvironment env;
    env.executor = io.get_executor();
    env.pool = &pool;
    env.http = &http;
    env.secrets = &secrets;
    env.defaults = &defaults;
    env.content = content.get();
    env.volume = &volume;
    env.trash = &trash;
    env.clipboard = sharedClipboard.get();
    env.capture.streams = [] { return std::make_unique<X11CaptureStream>(); };
    env.capture.encoders = [] { return std::make_unique<FfmpegVideoEncoder>(); };
    env.capture.probe = &encoderProbe;
    env.capture.media = &mediaReader;
    env.capture.layers = layers.get();
    env.capture.stills = &pngEncoder;
    env.log = &log;
    env.timing = timing;
    env.nowMs = [] {
        return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count());
    };
    env.appVersion = PAVIX_VERSION;
    env.deviceName = hostName();
    env.osVersion = osVersion();
    env.ownPid = ::getpid();
    env.libraryFolder = XdgFolders::library();
    env.libraryLabel = XdgFolders::libraryLabel(env.libraryFolder);

    int exitCode = 0;
    {
        Studio studio(env);
        if (options.server) {
            studio.setServer(*options.server);
        }
        if (options.code) {
            studio.setCode(*options.code);
        }
        if (options.approve) {
            studio.setConsent(true);
        }

        asio::signal_set stopSignals(io, SIGINT, SIGTERM);
        stopSignals.async_wait([&](const std::error_code& error, int) {
            if (error) {
                return;
            }
            if (options.record && studio.state().manual) {
                // Stopping the user's recording finishes and uploads it; the run then ends.
                asio::co_spawn(io, studio.stopManual(), asio::detached);
                return;
            }
            asio::co_spawn(
                io,
                [&]() -> asio::awaitable<void> {
                    co_await studio.disconnect(
                        "Disconnected. Local videos remain on this computer.");
                    io.stop();
                },
                asio::detached);
        });

        asio::co_spawn(
            io,
            [&]() -> asio::awaitable<void> {
                studio.loadLibrary();
                co_await studio.applyRetention();
                co_await studio.loadSavedIdentity();
                if (options.pair) {
                    co_await pairingRun(studio, io, exitCode);
                } else if (options.record) {
                    co_await recordRun(studio, io, exitCode);
                } else if (options.library || options.support || options.retry || options.remove) {
                    co_await libraryRun(studio, options, io, exitCode);
                } else {
                    co_await studio.refreshSources();
                    co_await studio.autoShare();
                }
            },
            asio::detached);
        io.run();
    }
    return exitCode;
}
