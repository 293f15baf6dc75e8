// Qt first: Xlib defines macros (Bool, Status) that Qt's headers refuse to follow.
#include <QApplication>

#include "ui/AppDelegate.h"
#include "ui/DesktopActions.h"
#include "ui/LaunchSwitches.h"
#include "ui/LinuxEnvironment.h"
#include "ui/SingleInstance.h"
#include "ui/Theme.h"

#include <unistd.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <optional>

#include "core/app/CommandLine.h"
#include "core/capture/CaptureSources.h"
#include "core/runtime/StreamLog.h"
#include "core/session/Studio.h"
#include "linux/Permissions.h"
#include "ui/LibraryCommands.h"
#include "ui/StatusLine.h"
#include "ui/StudioWait.h"

using namespace pavix;

namespace {

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

// The application with its window and tray.
int runApplication(int argc, char** argv, const CommandLine& options) {
    if (!Permissions::display()) {
        std::cerr << "pavix: cannot open the display to show the window on (DISPLAY is "
                  << (std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "not set")
                  << "). Start it on a desktop, or see --help for the runs without a window.\n";
        return 1;
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName("Pavix");
    QApplication::setDesktopFileName("app.pavix.Pavix");
    DesktopActions actions;
    auto claim = SingleInstance::claim(QDBusConnection::sessionBus(), actions, options.link);
    switch (claim.outcome) {
        case SingleInstance::Outcome::handedOver:
            return 0;
        case SingleInstance::Outcome::failed:
            std::cerr << "pavix: Pavix is already running but did not answer: " << claim.detail
                      << "\n";
            return 1;
        case SingleInstance::Outcome::first:
            if (!claim.detail.empty()) {
                std::cerr << "pavix: a second launch will not find this one: " << claim.detail
                          << "\n";
            }
            break;
    }
    Theme::apply(app);
    AppDelegate delegate(options, actions);
    return app.exec();
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

    // The one-shot switches: each ends the process.
    if (options.listSources) {
        StreamLog log;
        return LaunchSwitches::listSources(log);
    }
    if (options.snapshot) {
        qputenv("QT_QPA_PLATFORM", "offscreen");  // a picture needs no screen
        QApplication app(argc, argv);
        Theme::apply(app);
        return LaunchSwitches::snapshotBar(*options.snapshot, std::cerr);
    }
    if (options.checkPermission) {
        std::error_code ignored;
        auto self = std::filesystem::read_symlink("/proc/self/exe", ignored);
        return LaunchSwitches::checkPermission(std::cout, self.empty() ? argv[0] : self.string());
    }

    if (!options.pair && !options.record && !options.library && !options.support &&
        !options.retry && !options.remove) {
        return runApplication(argc, argv, options);
    }

    // The runs that change the pairing or the library would be a second model beside the
    // running application's; only reading the library is safe beside it.
    // QtDBus needs an application object; it lives as long as the run.
    std::optional<QCoreApplication> qt;
    if (options.pair || options.record || options.retry || options.remove) {
        qt.emplace(argc, argv);
        if (SingleInstance::running(QDBusConnection::sessionBus())) {
            std::cerr << "pavix: Pavix is already running on this desktop. Use its window, or "
                         "its actions on the session bus (app.pavix.Pavix).\n";
            return 1;
        }
    }

    // The scripted runs: the model on this thread, no window.
    asio::io_context io;
    LinuxEnvironment platform;
    auto env = platform.studio(io.get_executor());
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
                    co_await studio.quit();
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
