#pragma once

#include <QMenu>

namespace pavix {

class StudioBridge;

// The bar's source choice: the recordable windows and displays, the selected one checked,
// and "Pick a window…". Filled from the latest snapshot each time it opens.
class SourcesPopover : public QMenu {
    Q_OBJECT

  public:
    explicit SourcesPopover(StudioBridge& bridge, QWidget* parent = nullptr);

  Q_SIGNALS:
    void pickRequested();

  private:
    void fill();

    StudioBridge& bridge_;
};

}  // namespace pavix
