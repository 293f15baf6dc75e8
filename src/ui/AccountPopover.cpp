#include "ui/AccountPopover.h"

#include "core/session/Studio.h"
#include "ui/StudioBridge.h"

namespace pavix {

AccountPopover::AccountPopover(StudioBridge& bridge, QWidget* parent)
    : QMenu(parent), bridge_(bridge) {
    connect(this, &QMenu::aboutToShow, this, &AccountPopover::fill);
}

void AccountPopover::fill() {
    clear();
    const auto& snapshot = bridge_.snapshot();
    const auto& s = snapshot.state;
    auto server = QString::fromStdString(s.server);
    addAction(s.paired ? "Paired with " + server : "Not paired")->setEnabled(false);
    addSeparator();
    if (s.connected) {
        connect(addAction("Stop sharing"), &QAction::triggered, this,
                [this] { bridge_.spawn([](Studio& studio) { return studio.stopSharing(); }); });
    } else {
        auto* share = addAction("Share with agent");
        share->setEnabled(!snapshot.shareBlocker);
        share->setToolTip(QString::fromStdString(snapshot.shareBlocker.value_or("")));
        connect(share, &QAction::triggered, this,
                [this] { bridge_.spawn([](Studio& studio) { return studio.pair(); }); });
    }
    connect(addAction("Open Pavix"), &QAction::triggered, this, &AccountPopover::openRequested);
    connect(addAction("Settings…"), &QAction::triggered, this, &AccountPopover::settingsRequested);
    connect(addAction("Capture demo"), &QAction::triggered, this, &AccountPopover::demoRequested);
    connect(addAction("Hide the bar"), &QAction::triggered, this,
            [this] { bridge_.call([](Studio& studio) { studio.setShowHUD(false); }); });
    addSeparator();
    connect(addAction("Quit Pavix"), &QAction::triggered, this, &AccountPopover::quitRequested);
}

}  // namespace pavix
