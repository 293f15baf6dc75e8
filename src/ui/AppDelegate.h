#pragma once

#include <QObject>
#include <asio/signal_set.hpp>
#include <memory>

#include "core/app/CommandLine.h"
#include "ui/LinuxEnvironment.h"
#include "ui/ModelThread.h"

class QAction;

namespace pavix {

class FloatingBar;
class CaptureIndicator;
class DemoView;
class DesktopActions;
class RecorderMenu;
class SettingsView;
class WindowPicker;
class Studio;
class StudioBridge;
class StudioView;
class SystemEvents;

// The application: builds the model in its order (settings, library, switches, saved
// pairing), runs it on the model thread, shows the window and the tray, starts the launch
// tasks and makes every way out (Quit, closing the window, SIGTERM, the session's end) pass
// through the end of the session, so that a recording is finished and kept before the exit.
class AppDelegate : public QObject {
    Q_OBJECT

  public:
    // `actions` (on the session bus, or not) are attached to the model and may bring the
    // window forward; they outlive the delegate.
    AppDelegate(const CommandLine& options, DesktopActions& actions);
    ~AppDelegate() override;

    StudioBridge& bridge() { return *bridge_; }
    StudioView& window() { return *window_; }
    QAction& stopRecordingAction() { return *stopRecording_; }

    // Ends the session (the recording saved), then the application.
    void requestQuit();
    // Sleep, lock or a switch of user: the session ends when one is open or recording.
    void sessionEnding();

  private:
    void startLaunchTasks(const CommandLine& options);
    void watchSignals();
    void showWindow();
    void showSettings();
    void showDemo();
    void pickWindow();

    ModelThread model_;  // first made, last gone: it runs everything below
    LinuxEnvironment platform_;
    std::unique_ptr<Studio> studio_;
    std::unique_ptr<StudioBridge> bridge_;
    std::unique_ptr<asio::signal_set> signals_;
    QAction* stopRecording_;
    std::unique_ptr<StudioView> window_;
    std::unique_ptr<RecorderMenu> tray_;
    std::unique_ptr<FloatingBar> bar_;
    std::unique_ptr<SettingsView> settings_;
    std::unique_ptr<DemoView> demo_;
    std::unique_ptr<CaptureIndicator> indicator_;
    std::unique_ptr<WindowPicker> picker_;
    std::unique_ptr<SystemEvents> systemEvents_;
    bool quitting_ = false;
    bool wasCapturing_ = false;  // to check for an update once a recording has ended
};

}  // namespace pavix
