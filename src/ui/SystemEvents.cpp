#include "ui/SystemEvents.h"

#include <unistd.h>

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusReply>

namespace pavix {
namespace {

const QString kLogin1 = QStringLiteral("org.freedesktop.login1");
const QString kManagerPath = QStringLiteral("/org/freedesktop/login1");
const QString kManagerInterface = QStringLiteral("org.freedesktop.login1.Manager");
const QString kSessionInterface = QStringLiteral("org.freedesktop.login1.Session");
const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
// logind answers at once; a hung one must not hold up the start for the default 25 seconds.
constexpr int kLookupTimeoutMs = 2000;

struct ScreenSaver {
    const char* service;
    const char* path;
};
// The freedesktop screensaver lives at /org/freedesktop/ScreenSaver, but KDE's screen locker also
// serves it at /ScreenSaver, its older path. GNOME Shell reports on an interface of its own.
// Active means the screen is covered, locked or just blanked.
constexpr ScreenSaver kScreenSavers[] = {
    {"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver"},
    {"org.freedesktop.ScreenSaver", "/ScreenSaver"},
    {"org.gnome.ScreenSaver", "/org/gnome/ScreenSaver"},
};

QString lookUpSession(QDBusConnection& system, const QString& method, const QVariant& argument) {
    auto message = QDBusMessage::createMethodCall(kLogin1, kManagerPath, kManagerInterface, method);
    message << argument;
    QDBusReply<QDBusObjectPath> reply = system.call(message, QDBus::Block, kLookupTimeoutMs);
    return reply.isValid() ? reply.value().path() : QString();
}

// The logind session this process belongs to, or an empty path.
QString ownSession(QDBusConnection& system) {
    auto path = lookUpSession(system, QStringLiteral("GetSessionByPID"),
                              QVariant::fromValue(static_cast<quint32>(::getpid())));
    // A process started outside any session (by the user's service manager, say) has none of
    // its own; "auto" then stands for the user's graphical session. logind answers with the
    // session's real path: signals never come from the "auto" alias itself.
    if (path.isEmpty()) {
        path = lookUpSession(system, QStringLiteral("GetSession"), QStringLiteral("auto"));
    }
    return path;
}

}  // namespace

SystemEvents::SystemEvents(QDBusConnection system, QDBusConnection session, QObject* parent)
    : QObject(parent) {
    // Qt follows the owner of a well-known name, so a service that starts later is heard too.
    if (system.isConnected()) {
        watching_ =
            system.connect(kLogin1, kManagerPath, kManagerInterface,
                           QStringLiteral("PrepareForSleep"), this, SLOT(onPrepareForSleep(bool)));
        if (auto path = ownSession(system); !path.isEmpty()) {
            system.connect(kLogin1, path, kSessionInterface, QStringLiteral("Lock"), this,
                           SLOT(onSessionLock()));
            system.connect(kLogin1, path, kPropertiesInterface, QStringLiteral("PropertiesChanged"),
                           this,
                           SLOT(onSessionPropertiesChanged(QString, QVariantMap, QStringList)));
        }
    }
    if (session.isConnected()) {
        for (const auto& screenSaver : kScreenSavers) {
            session.connect(
                QString::fromLatin1(screenSaver.service), QString::fromLatin1(screenSaver.path),
                QString::fromLatin1(screenSaver.service), QStringLiteral("ActiveChanged"), this,
                SLOT(onScreenSaverActiveChanged(bool)));
        }
    }
}

void SystemEvents::onPrepareForSleep(bool starting) {
    // logind sends true before suspending and false once the computer is awake again. Without
    // a delay inhibitor of ours it does not wait for anyone to react before going to sleep.
    if (starting) {
        Q_EMIT sessionEnding(QStringLiteral("sleep"));
    }
}

void SystemEvents::onSessionLock() {
    Q_EMIT sessionEnding(QStringLiteral("lock"));
}

void SystemEvents::onSessionPropertiesChanged(const QString& interface, const QVariantMap& changed,
                                              const QStringList& /*invalidated*/) {
    // logind sends Active with its new value, not as merely invalidated. It turns false when
    // another session takes the seat: a user switch or a change of virtual terminal.
    if (interface == kSessionInterface && !changed.value(QStringLiteral("Active"), true).toBool()) {
        Q_EMIT sessionEnding(QStringLiteral("switch"));
    }
}

void SystemEvents::onScreenSaverActiveChanged(bool active) {
    if (active) {
        Q_EMIT sessionEnding(QStringLiteral("lock"));
    }
}

}  // namespace pavix
