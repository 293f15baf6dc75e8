#pragma once

#include <QMenu>

namespace pavix {

class StudioBridge;

// The bar's account menu: which service this computer is paired with, sharing with the agent
// or ending it, the window, hiding the bar and quitting.
class AccountPopover : public QMenu {
    Q_OBJECT

  public:
    explicit AccountPopover(StudioBridge& bridge, QWidget* parent = nullptr);

  Q_SIGNALS:
    void openRequested();
    void settingsRequested();
    void demoRequested();
    void quitRequested();

  private:
    void fill();

    StudioBridge& bridge_;
};

}  // namespace pavix
