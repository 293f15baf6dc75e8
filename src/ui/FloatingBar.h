#pragma once

#include <QWidget>

namespace pavix {

class AccountPopover;
class FloatingBarView;
class SourcesPopover;
class StudioBridge;

// The floating bar: a small panel above every window, dragged anywhere by its body, that
// shows and drives the Studio without the main window. Shown while "showBar" is on.
class FloatingBar : public QWidget {
    Q_OBJECT

  public:
    explicit FloatingBar(StudioBridge& bridge, QWidget* parent = nullptr);

    FloatingBarView& view() { return *view_; }
    SourcesPopover& sources() { return *sources_; }
    AccountPopover& account() { return *account_; }

  protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

  private:
    void render();
    void placeOnScreen();

    StudioBridge& bridge_;
    FloatingBarView* view_;
    SourcesPopover* sources_;
    AccountPopover* account_;
    QPoint grab_;
    bool placed_ = false;
};

}  // namespace pavix
