#include "ui/RecorderMenu.h"

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>

#include "core/session/Studio.h"
#include "ui/StudioBridge.h"
#include "ui/Theme.h"

namespace pavix {

RecorderMenu::RecorderMenu(StudioBridge& bridge, QAction* stopRecording, QObject* parent)
    : QObject(parent), bridge_(bridge), menu_(new QMenu), tray_(new QSystemTrayIcon(this)) {
    state_ = menu_->addAction(QString());
    state_->setEnabled(false);
    menu_->addSeparator();
    auto* open = menu_->addAction("Open Pavix");
    connect(open, &QAction::triggered, this, &RecorderMenu::openRequested);
    record_ = menu_->addAction(Theme::icon("record"), "Record it yourself");
    connect(record_, &QAction::triggered, this,
            [this] { bridge_.spawn([](Studio& studio) { return studio.recordNow(); }); });
    menu_->addAction(stopRecording);
    menu_->addSeparator();
    connect(menu_->addAction("Settings…"), &QAction::triggered, this,
            &RecorderMenu::settingsRequested);
    connect(menu_->addAction("Capture demo"), &QAction::triggered, this,
            &RecorderMenu::demoRequested);
    auto* quit = menu_->addAction("Quit Pavix");
    connect(quit, &QAction::triggered, this, &RecorderMenu::quitRequested);

    tray_->setContextMenu(menu_);
    connect(tray_, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason why) {
                if (why == QSystemTrayIcon::Trigger) {
                    Q_EMIT openRequested();
                }
            });
    connect(&bridge_, &StudioBridge::changed, this, &RecorderMenu::render);
    render();
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        tray_->show();
    }
}

RecorderMenu::~RecorderMenu() {
    delete menu_;
}

bool RecorderMenu::visible() const {
    return tray_->isVisible();
}

void RecorderMenu::render() {
    const auto& snapshot = bridge_.snapshot();
    const auto& s = snapshot.state;
    QString state;
    if (s.recording) {
        state = QString::fromStdString("Recording " + s.recordingSource);
    } else if (s.uploading) {
        state = "Uploading";
    } else if (s.connected) {
        state = "Shared with your agent";
    } else {
        state = s.paired ? "Paired, not sharing" : "Not paired";
    }
    state_->setText(state);
    tray_->setToolTip("Pavix — " + state);
    tray_->setIcon(Theme::icon(s.recording ? "pavix-recording" : "pavix"));
    record_->setEnabled(!s.connected && s.paired && !s.selection.empty() && !s.recording &&
                        !s.busy);
}

}  // namespace pavix
