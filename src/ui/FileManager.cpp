#include "ui/FileManager.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace pavix::FileManager {

void showItem(const QString& file) {
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(file).absolutePath());
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QDesktopServices::openUrl(folder);
        return;
    }
    auto call = QDBusMessage::createMethodCall("org.freedesktop.FileManager1",
                                               "/org/freedesktop/FileManager1",
                                               "org.freedesktop.FileManager1", "ShowItems");
    // The second argument is the startup notification id, which we do not have.
    call << QStringList{QUrl::fromLocalFile(file).toString()} << QString();
    // No file manager owns the name when the reply is an error (the bus cannot activate one).
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5'000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [folder](auto* finished) {
        if (QDBusPendingReply<>(*finished).isError()) {
            QDesktopServices::openUrl(folder);
        }
        finished->deleteLater();
    });
}

}  // namespace pavix::FileManager
