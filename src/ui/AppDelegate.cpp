#include "ui/AppDelegate.h"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QStandardPaths>
#include <QTimer>
#include <QUrl>
#include <csignal>

#include "core/app/ServiceAddresses.h"
#include "core/session/Studio.h"
#include "linux/X11WindowPicker.h"
#include "ui/AccountPopover.h"
#include "ui/CaptureIndicator.h"
#include "ui/DemoView.h"
#include "ui/DesktopActions.h"
#include "ui/FloatingBar.h"
#include "ui/RecorderMenu.h"
#include "ui/SettingsView.h"
#include "ui/SourcesPopover.h"
#include "ui/StudioBridge.h"
#include "ui/StudioView.h"
#include "ui/SystemEvents.h"
#include "ui/Theme.h"

namespace pavix {

AppDelegate::AppDelegate(const CommandLine& options, DesktopActions& actions) {
    // The model, in the order of its rules: initial values and settings, the capture session
    // and the library (recovered and published), then the switches.
    studio_ = std::make_unique<Studio>(platform_.studio(model_.executor()));
    studio_->loadLibrary();
    if (options.server) {
        studio_->setServer(*options.server);
    }
    if (options.code) {
        studio_->setCode(*options.code);
    }
    if (options.approve) {
        studio_->setConsent(true);
    }
    bridge_ = std::make_unique<StudioBridge>(*studio_, model_.executor());

    stopRecording_ = new QAction(Theme::icon("stop"), "Stop recording", this);
    stopRecording_->setShortcut(QKeySequence("Ctrl+Shift+S"));
    stopRecording_->setShortcutContext(Qt::ApplicationShortcut);
    connect(stopRecording_, &QAction::triggered, this,
            [this] { bridge_->spawn([](Studio& studio) { return studio.stopAnyRecording(); }); });
    auto followRecording = [this] {
        stopRecording_->setEnabled(bridge_->snapshot().phase ==
                                   RecordingLifecycle::Phase::recording);
    };
    connect(bridge_.get(), &StudioBridge::changed, this, followRecording);
    followRecording();

    window_ = std::make_unique<StudioView>(*bridge_, studio_->environment().libraryFolder);
    window_->addAction(stopRecording_);
    // Closing the window quits only when the bar is not there to go on with.
    connect(window_.get(), &StudioView::closeRequested, this, [this] {
        if (!bridge_->snapshot().state.showHUD) {
            requestQuit();
        }
    });
    connect(window_.get(), &StudioView::pickRequested, this, &AppDelegate::pickWindow);
    // Updates come from the download page, in whatever form the user installed Pavix.
    connect(window_.get(), &StudioView::downloadRequested, this,
            [] { QDesktopServices::openUrl(QUrl(ServiceAddresses::kDownloadPage)); });
    connect(window_.get(), &StudioView::settingsRequested, this, &AppDelegate::showSettings);
    tray_ = std::make_unique<RecorderMenu>(*bridge_, stopRecording_);
    connect(tray_.get(), &RecorderMenu::openRequested, this, &AppDelegate::showWindow);
    connect(tray_.get(), &RecorderMenu::quitRequested, this, &AppDelegate::requestQuit);
    connect(tray_.get(), &RecorderMenu::settingsRequested, this, &AppDelegate::showSettings);
    connect(tray_.get(), &RecorderMenu::demoRequested, this, &AppDelegate::showDemo);
    bar_ = std::make_unique<FloatingBar>(*bridge_);
    bar_->addAction(stopRecording_);
    connect(&bar_->account(), &AccountPopover::openRequested, this, &AppDelegate::showWindow);
    connect(&bar_->account(), &AccountPopover::quitRequested, this, &AppDelegate::requestQuit);
    connect(&bar_->account(), &AccountPopover::settingsRequested, this, &AppDelegate::showSettings);
    connect(&bar_->account(), &AccountPopover::demoRequested, this, &AppDelegate::showDemo);
    indicator_ = std::make_unique<CaptureIndicator>(*bridge_);
    connect(&bar_->sources(), &SourcesPopover::pickRequested, this, &AppDelegate::pickWindow);
    // The session manager ending the desktop session quits like the Quit entry.
    connect(qApp, &QGuiApplication::commitDataRequest, this, [this] { requestQuit(); });
    // With the bar on, the application starts in the bar alone.
    QApplication::setQuitOnLastWindowClosed(false);

    // Sleep, lock and a switch of user end an open session; repeats of one moment find
    // nothing left to end.
    systemEvents_ =
        std::make_unique<SystemEvents>(QDBusConnection::systemBus(), QDBusConnection::sessionBus());
    connect(systemEvents_.get(), &SystemEvents::sessionEnding, this, &AppDelegate::sessionEnding);
    // Hiding the bar brings the window back: one of the two is always there to go on with.
    connect(bridge_.get(), &StudioBridge::changed, this, [this] {
        if (!bridge_->snapshot().state.showHUD && !window_->isVisible() && !quitting_) {
            showWindow();
        }
    });

    // Scripts, shortcuts and later launches reach the model through the actions.
    actions.attach(*bridge_);
    connect(&actions, &DesktopActions::windowRequested, this, &AppDelegate::showWindow);

    watchSignals();
    model_.start();
    startLaunchTasks(options);
    if (!bridge_->snapshot().state.showHUD || options.link) {
        showWindow();
    }
}

AppDelegate::~AppDelegate() {
    // Nothing may run on the model once the views and the model are going away.
    model_.stop();
    systemEvents_.reset();
    indicator_.reset();
    demo_.reset();
    settings_.reset();
    picker_.reset();
    bar_.reset();
    tray_.reset();
    window_.reset();
    signals_.reset();
    bridge_.reset();
    studio_.reset();
}

void AppDelegate::startLaunchTasks(const CommandLine& options) {
    // Retention, and the source refresh followed by resuming a saved pairing (or following
    // the setup link the launch came with), side by side.
    bridge_->spawn([](Studio& studio) { return studio.applyRetention(); });
    bridge_->spawn([link = options.link](Studio& studio) -> asio::awaitable<void> {
        co_await studio.loadSavedIdentity();
        co_await studio.refreshSources();
        if (studio.state().selection.empty()) {
            studio.selectDefaultSource();
        }
        if (link) {
            studio.applySetupLink(*link);
        } else {
            co_await studio.autoShare();
        }
        co_await studio.checkForUpdate(false);
    });
    // Once a day for a session that stays open, and after every recording.
    auto* daily = new QTimer(this);
    daily->setInterval(std::chrono::hours(1));
    connect(daily, &QTimer::timeout, this, [this] {
        bridge_->spawn([](Studio& studio) { return studio.checkForUpdate(false); });
    });
    daily->start();
    connect(bridge_.get(), &StudioBridge::changed, this, [this] {
        const bool capturing = bridge_->snapshot().phase != RecordingLifecycle::Phase::idle &&
                               bridge_->snapshot().phase != RecordingLifecycle::Phase::uploading;
        if (wasCapturing_ && !capturing) {
            bridge_->spawn([](Studio& studio) { return studio.checkForUpdate(true); });
        }
        wasCapturing_ = capturing;
    });
}

void AppDelegate::watchSignals() {
    // SIGTERM and SIGINT quit like the Quit entry. The set lives on the model executor; the
    // quit itself is the window thread's to start.
    signals_ = std::make_unique<asio::signal_set>(model_.context(), SIGINT, SIGTERM);
    signals_->async_wait([this](const std::error_code& error, int) {
        if (!error) {
            QMetaObject::invokeMethod(
                this, [this] { requestQuit(); }, Qt::QueuedConnection);
        }
    });
}

void AppDelegate::requestQuit() {
    if (quitting_) {
        return;
    }
    quitting_ = true;
    bridge_->spawn([](Studio& studio) { return studio.quit(); }, [] { QApplication::quit(); });
}

void AppDelegate::showWindow() {
    window_->show();
    window_->raise();
    window_->activateWindow();
}

void AppDelegate::showSettings() {
    if (!settings_) {
        auto config = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
        settings_ = std::make_unique<SettingsView>(*bridge_, AutostartEntry(config.toStdString()));
        connect(settings_.get(), &SettingsView::openConsoleRequested, this,
                [](const QString& address) { QDesktopServices::openUrl(QUrl(address)); });
    }
    settings_->show();
    settings_->raise();
    settings_->activateWindow();
}

void AppDelegate::showDemo() {
    if (!demo_) {
        demo_ = std::make_unique<DemoView>();
    }
    demo_->show();
    demo_->raise();
    demo_->activateWindow();
    // The demo is a window like any other: it becomes a source to pick.
    bridge_->spawn([](Studio& studio) { return studio.refreshSources(); });
}

// "Pick a window…": the next click chooses the window under the pointer, which becomes the
// selection once the list has it.
void AppDelegate::pickWindow() {
    try {
        if (!picker_) {
            picker_ = std::make_unique<X11WindowPicker>();
        }
    } catch (const std::exception& e) {
        platform_.log().line(std::string("window picker unavailable: ") + e.what());
        return;
    }
    WindowPickerHandlers handlers;
    handlers.selected = [this](std::uint32_t window) {
        const auto id = "window-" + std::to_string(window);
        bridge_->spawn([id](Studio& studio) -> asio::awaitable<void> {
            co_await studio.refreshSources();
            studio.selectSource(id);
        });
    };
    handlers.canceled = [] {};
    handlers.failed = [this](const std::string& reason) {
        bridge_->call([reason](Studio& studio) {
            studio.environment().log->line("window pick failed: " + reason);
        });
    };
    picker_->present(std::move(handlers));
}

void AppDelegate::sessionEnding() {
    bridge_->spawn([](Studio& studio) { return studio.systemSessionEnding(); });
}

}  // namespace pavix
