#include "ui/DesktopActions.h"

#include <QDBusConnection>

#include "core/net/Url.h"
#include "core/session/Studio.h"
#include "ui/StudioBridge.h"

namespace pavix {

DesktopActions::DesktopActions(QObject* parent) : QObject(parent) {}

void DesktopActions::attach(StudioBridge& bridge) {
    bridge_ = &bridge;
    connect(bridge_, &StudioBridge::changed, this, &DesktopActions::follow);
    last_ = status();
}

QVariantMap DesktopActions::status() const {
    if (!bridge_) {
        return {{"phase", "starting"}};
    }
    const auto& snapshot = bridge_->snapshot();
    const auto& s = snapshot.state;
    return {
        {"phase", phaseText(snapshot.phase)},
        {"status", QString::fromStdString(s.status)},
        {"server", QString::fromStdString(s.server)},
        {"paired", s.paired},
        {"connected", s.connected},
        {"consent", s.consent},
        {"recording", s.recording},
        {"uploading", s.uploading},
        {"source", QString::fromStdString(s.recording ? s.recordingSource : s.selection)},
        {"canRecord", !snapshot.recordBlocker.has_value()},
        {"updateRequired", s.update.kind == UpdateDecision::Kind::required},
        {"updateVersion", QString::fromStdString(s.update.version)},
    };
}

void DesktopActions::follow() {
    auto now = status();
    if (now != last_) {
        last_ = now;
        Q_EMIT StatusChanged(now);
    }
}

bool DesktopActions::ready() {
    if (!bridge_) {
        refuse("Pavix is starting. Try again in a moment.");
    }
    return bridge_ != nullptr;
}

void DesktopActions::refuse(const std::string& why) {
    if (calledFromDBus()) {
        sendErrorReply(kRefused, QString::fromStdString(why));
    }
}

void DesktopActions::Activate() {
    Q_EMIT windowRequested();
}

void DesktopActions::OpenLink(const QString& link) {
    auto url = Url::parse(link.toStdString());
    if (!url || url->scheme != "pavix-mac") {
        if (calledFromDBus()) {
            sendErrorReply(QDBusError::InvalidArgs, "Not a Pavix setup link: " + link);
        }
        return;
    }
    if (!ready()) {
        return;
    }
    // The model says in the status line what became of the link.
    bridge_->call([text = link.toStdString()](Studio& studio) { studio.applySetupLink(text); });
    Q_EMIT windowRequested();
}

void DesktopActions::Approve() {
    if (!ready()) {
        return;
    }
    const auto& s = bridge_->snapshot().state;
    if (s.recording || s.busy) {
        refuse(s.recording ? "Stop the current recording first." : "Working…");
        return;
    }
    bridge_->call([](Studio& studio) { studio.setConsent(true); });
}

void DesktopActions::Record() {
    if (!ready()) {
        return;
    }
    if (const auto& blocker = bridge_->snapshot().recordBlocker) {
        refuse(*blocker);
        return;
    }
    bridge_->spawn([](Studio& studio) { return studio.recordNow(); });
}

void DesktopActions::Stop() {
    if (!ready()) {
        return;
    }
    if (bridge_->snapshot().phase != RecordingLifecycle::Phase::recording) {
        refuse("Nothing is recording.");
        return;
    }
    bridge_->spawn([](Studio& studio) { return studio.stopAnyRecording(); });
}

void DesktopActions::StopSharing() {
    if (!ready()) {
        return;
    }
    if (!bridge_->snapshot().state.connected) {
        refuse("Not sharing with the agent.");
        return;
    }
    bridge_->spawn([](Studio& studio) { return studio.stopSharing(); });
}

QVariantMap DesktopActions::Status() {
    return status();
}

}  // namespace pavix
