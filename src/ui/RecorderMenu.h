#pragma once

#include <QObject>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace pavix {

class StudioBridge;

// The tray icon and its menu: what Pavix is doing, opening the window, recording yourself or
// stopping, and quitting. The icon turns red while a recording runs. Desktops without a
// tray show no icon; the window then stays the way in.
class RecorderMenu : public QObject {
    Q_OBJECT

  public:
    RecorderMenu(StudioBridge& bridge, QAction* stopRecording, QObject* parent = nullptr);
    ~RecorderMenu() override;

    QMenu* menu() const { return menu_; }
    bool visible() const;

  Q_SIGNALS:
    void openRequested();
    void settingsRequested();
    void demoRequested();
    void quitRequested();

  private:
    void render();

    StudioBridge& bridge_;
    QMenu* menu_;
    QSystemTrayIcon* tray_;
    QAction* state_;
    QAction* record_;
};

}  // namespace pavix
