#pragma once

#include <QDBusContext>
#include <QObject>
#include <QVariantMap>
#include <string>

namespace pavix {

class StudioBridge;

// The application's actions on the session bus, for the user's scripts, desktop shortcuts and
// a second launch of Pavix: show the window, follow a setup link, approve, record, stop, end
// the session with the agent and read the status. A call that cannot be done now is answered with a D-Bus error that says
// why; nothing a caller sends can do more than that.
//
// Made before the bus name is claimed and attached to the model once it exists: calls are
// dispatched on the window thread, so none is taken before the application's loop runs.
class DesktopActions : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "app.pavix.Pavix")

  public:
    static constexpr const char* kService = "app.pavix.Pavix";
    static constexpr const char* kPath = "/app/pavix/Pavix";
    static constexpr const char* kInterface = "app.pavix.Pavix";
    // The error of an action the model's rules refuse now; its message is the reason.
    static constexpr const char* kRefused = "app.pavix.Pavix.Error.Refused";

    explicit DesktopActions(QObject* parent = nullptr);

    void attach(StudioBridge& bridge);
    // The status as Status() returns it.
    QVariantMap status() const;

  public Q_SLOTS:
    Q_SCRIPTABLE void Activate();
    Q_SCRIPTABLE void OpenLink(const QString& link);
    Q_SCRIPTABLE void Approve();
    Q_SCRIPTABLE void Record();
    Q_SCRIPTABLE void Stop();
    Q_SCRIPTABLE void StopSharing();
    Q_SCRIPTABLE QVariantMap Status();

  Q_SIGNALS:
    // Sent when the status line, the phase or a flag changes.
    Q_SCRIPTABLE void StatusChanged(const QVariantMap& status);
    // The window should come forward (not on the bus).
    void windowRequested();

  private:
    bool ready();
    void refuse(const std::string& why);
    void follow();

    StudioBridge* bridge_ = nullptr;
    QVariantMap last_;
};

}  // namespace pavix
