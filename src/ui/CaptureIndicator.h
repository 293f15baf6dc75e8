#pragma once

#include <QObject>
#include <memory>
#include <vector>

class QWidget;

namespace pavix {

class StudioBridge;

// While a recording runs, a small red "Recording" mark in the top right corner of every
// screen, above all windows and transparent to the pointer. Screens that come and go while
// recording get or lose their mark.
class CaptureIndicator : public QObject {
    Q_OBJECT

  public:
    explicit CaptureIndicator(StudioBridge& bridge, QObject* parent = nullptr);
    ~CaptureIndicator() override;

    // The marks shown now, one per screen.
    const std::vector<std::unique_ptr<QWidget>>& marks() const { return marks_; }

  private:
    void render();
    void place();

    StudioBridge& bridge_;
    std::vector<std::unique_ptr<QWidget>> marks_;
};

}  // namespace pavix
