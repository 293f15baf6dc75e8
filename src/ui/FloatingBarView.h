#pragma once

#include <QWidget>

#include "core/session/StudioSnapshot.h"

class QLabel;
class QToolButton;

namespace pavix {

// The content of the floating bar: a dot and a line that say what Pavix is doing, the time
// recorded, the source choice, record or stop, and the account. It shows a snapshot and says
// what was pressed; the bar around it decides what that does.
class FloatingBarView : public QWidget {
    Q_OBJECT

  public:
    explicit FloatingBarView(QWidget* parent = nullptr);

    void render(const StudioSnapshot& snapshot);
    // The line beside the dot for `snapshot`.
    static QString stateText(const StudioSnapshot& snapshot);
    // "m:ss" of a recording's length.
    static QString elapsedText(std::chrono::seconds elapsed);

    QToolButton* sourceButton() const { return source_; }
    QToolButton* accountButton() const { return account_; }

  Q_SIGNALS:
    void recordPressed();
    void stopPressed();

  private:
    void tick();

    StudioSnapshot snapshot_;
    QLabel* dot_;
    QLabel* state_;
    QLabel* elapsed_;
    QToolButton* source_;
    QToolButton* record_;
    QToolButton* account_;
};

}  // namespace pavix
