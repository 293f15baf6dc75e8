#pragma once

#include <QWidget>

class QLabel;

#include "core/capture/CaptureSource.h"

namespace pavix {

// One recordable window or display in the source list: its icon, its title and, beneath,
// its kind and size ("Window · 800 × 600").
class SourceRow : public QWidget {
    Q_OBJECT

  public:
    explicit SourceRow(const CaptureSource& source, QWidget* parent = nullptr);

    // The line beneath the title.
    static QString detail(const CaptureSource& source);

  protected:
    void resizeEvent(QResizeEvent* event) override;

  private:
    QLabel* title_;
    QString fullTitle_;
};

}  // namespace pavix
