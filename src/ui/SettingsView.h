#pragma once

#include <QWidget>

#include "linux/AutostartEntry.h"

class QCheckBox;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace pavix {

class StudioBridge;
struct Preferences;

// The settings window: every setting the user keeps (the bar, start at login, the agent's
// control, failure reports, the console, the library's retention, the widest video, beta
// updates, canvas applications), and forgetting this computer or copying the support
// summary. Each change goes to the model, which stores it.
class SettingsView : public QWidget {
    Q_OBJECT

  public:
    SettingsView(StudioBridge& bridge, AutostartEntry autostart, QWidget* parent = nullptr);

    // Asks before forgetting this computer; true when the user confirmed. Replaceable, so that
    // the question can be answered without a person.
    std::function<bool(QWidget*)> confirmForget;

  Q_SIGNALS:
    void openConsoleRequested(const QString& address);

  private:
    void render();
    void changePreferences(const std::function<void(Preferences&)>& edit);

    StudioBridge& bridge_;
    AutostartEntry autostart_;
    QCheckBox* showBar_;
    QCheckBox* atLogin_;
    QCheckBox* allowControl_;
    QCheckBox* diagnostics_;
    QLineEdit* console_;
    QCheckBox* autoTrash_;
    QSpinBox* maxWidth_;
    QCheckBox* beta_;
    QLineEdit* canvasApps_;
    QPushButton* forget_;
};

}  // namespace pavix
