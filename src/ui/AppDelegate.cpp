#include "ui/AppDelegate.h"

#include <QAction>
#include <QApplication>
#include <csignal>

#include "core/session/Studio.h"
#include "ui/RecorderMenu.h"
#include "ui/StudioBridge.h"
#include "ui/StudioView.h"
#include "ui/Theme.h"

namespace pavix {

AppDelegate::AppDelegate(const CommandLine& options) {
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
    connect(window_.get(), &StudioView::closeRequested, this, &AppDelegate::requestQuit);
    tray_ = std::make_unique<RecorderMenu>(*bridge_, stopRecording_);
    connect(tray_.get(), &RecorderMenu::openRequested, this, [this] {
        window_->show();
        window_->raise();
        window_->activateWindow();
    });
    connect(tray_.get(), &RecorderMenu::quitRequested, this, &AppDelegate::requestQuit);
    // The session manager ending the desktop session quits like the Quit entry.
    connect(qApp, &QGuiApplication::commitDataRequest, this, [this] { requestQuit(); });

    watchSignals();
    model_.start();
    startLaunchTasks(options);
    window_->show();
}

AppDelegate::~AppDelegate() {
    // Nothing may run on the model once the views and the model are going away.
    model_.stop();
    tray_.reset();
    window_.reset();
    signals_.reset();
    bridge_.reset();
    studio_.reset();
}

void AppDelegate::startLaunchTasks(const CommandLine&) {
    // Retention, and the source refresh followed by resuming a saved pairing, side by side.
    bridge_->spawn([](Studio& studio) { return studio.applyRetention(); });
    bridge_->spawn([](Studio& studio) -> asio::awaitable<void> {
        co_await studio.loadSavedIdentity();
        co_await studio.refreshSources();
        if (studio.state().selection.empty()) {
            studio.selectDefaultSource();
        }
        co_await studio.autoShare();
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

void AppDelegate::sessionEnding() {
    bridge_->spawn([](Studio& studio) { return studio.systemSessionEnding(); });
}

}  // namespace pavix
