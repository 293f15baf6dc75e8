#include "ui/SourcesPopover.h"

#include "core/session/Studio.h"
#include "ui/StudioBridge.h"
#include "ui/Theme.h"

namespace pavix {

SourcesPopover::SourcesPopover(StudioBridge& bridge, QWidget* parent)
    : QMenu(parent), bridge_(bridge) {
    connect(this, &QMenu::aboutToShow, this, &SourcesPopover::fill);
}

void SourcesPopover::fill() {
    clear();
    const auto& s = bridge_.snapshot().state;
    if (s.sources.empty()) {
        addAction("No windows or displays to record")->setEnabled(false);
    }
    for (const auto& source : s.sources) {
        auto* action = addAction(Theme::icon(source.isDisplay() ? "display" : "window"),
                                 QString::fromStdString(source.title));
        action->setCheckable(true);
        action->setChecked(source.id == s.selection);
        const auto id = source.id;
        connect(action, &QAction::triggered, this,
                [this, id] { bridge_.call([id](Studio& studio) { studio.selectSource(id); }); });
    }
    addSeparator();
    connect(addAction("Pick a window…"), &QAction::triggered, this, &SourcesPopover::pickRequested);
    connect(addAction("Refresh"), &QAction::triggered, this,
            [this] { bridge_.spawn([](Studio& studio) { return studio.refreshSources(); }); });
}

}  // namespace pavix
