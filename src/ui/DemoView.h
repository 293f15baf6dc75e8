#pragma once

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

namespace pavix {

// "Pavix Capture Demo": an animated test picture to try a recording on — colour bars, a
// moving square, a sweeping line and a running clock, drawn sixty times a second while shown.
class DemoView : public QWidget {
    Q_OBJECT

  public:
    explicit DemoView(QWidget* parent = nullptr);

  protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

  private:
    QTimer frames_;
    QElapsedTimer clock_;
};

}  // namespace pavix
