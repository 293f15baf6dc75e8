#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

namespace pavix {

// Tells when the user's desktop session stops being theirs for a while: the computer going to
// sleep ("sleep"), the screen locking ("lock") or another user taking over the seat ("switch").
// Several sources report the same lock (logind and the screensaver, one screensaver on two
// paths), so one moment may be reported more than once: listeners treat repeats as no-ops.
//
// The logind session is looked up once, when the watcher is made. Services that are not on the
// bus yet are still heard once they appear.
class SystemEvents : public QObject {
    Q_OBJECT

  public:
    // `system` carries logind, `session` the screensaver; either may be disconnected.
    SystemEvents(QDBusConnection system, QDBusConnection session, QObject* parent = nullptr);

    // Whether logind's sleep signal is watched, which holds whenever the system bus is there.
    bool watching() const { return watching_; }

  Q_SIGNALS:
    void sessionEnding(const QString& reason);

  private Q_SLOTS:
    void onPrepareForSleep(bool starting);
    void onSessionLock();
    void onSessionPropertiesChanged(const QString& interface, const QVariantMap& changed,
                                    const QStringList& invalidated);
    void onScreenSaverActiveChanged(bool active);

  private:
    bool watching_ = false;
};

}  // namespace pavix
