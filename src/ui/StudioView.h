#pragma once

#include <QWidget>
#include <filesystem>
#include <memory>

#include "core/session/StudioSnapshot.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QMessageBox;
class QPushButton;

namespace pavix {

class PreviewStage;
class StudioBridge;
class UpdateBanner;

// The main window "Pavix": the sources and the selection, the server and the one-time code,
// the approval, sharing with the agent and recording it yourself, the status line, and the
// recordings kept on this computer. It shows the bridge's snapshot and asks the model for
// every change; it never decides a rule of its own.
class StudioView : public QWidget {
    Q_OBJECT

  public:
    StudioView(StudioBridge& bridge, std::filesystem::path library, QWidget* parent = nullptr);

    // The question asked before a recording goes to the Trash; "Keep" is its default.
    static std::unique_ptr<QMessageBox> removalQuestion(QWidget* parent);

  Q_SIGNALS:
    void pickRequested();      // "Pick a window…"
    void settingsRequested();  // "Settings…"
    void closeRequested();     // the window was closed by the user
    void downloadRequested();  // the update banner's "Download"

  protected:
    void closeEvent(QCloseEvent* event) override;

  private:
    void build();
    void render();
    void renderSources(const StudioSnapshot& snapshot);
    void renderLibrary(const StudioSnapshot& snapshot);
    void openRecord(const std::string& id, bool folder);

    StudioBridge& bridge_;
    std::filesystem::path library_;
    QLabel* badge_;
    UpdateBanner* banner_;
    QListWidget* sources_;
    PreviewStage* preview_;
    QPushButton* refresh_;
    QPushButton* pick_;
    QLineEdit* server_;
    QLineEdit* code_;
    QCheckBox* consent_;
    QPushButton* share_;
    QLabel* blocker_;
    QPushButton* record_;
    QLabel* status_;
    QListWidget* recordings_;
    QLabel* empty_;
};

}  // namespace pavix
