#pragma once

#include <QFrame>

#include "core/app/UpdateDecision.h"

class QLabel;
class QPushButton;

namespace pavix {

// The banner above the window's content while a newer Pavix is offered or required; hidden
// otherwise. "Download" asks for the download page.
class UpdateBanner : public QFrame {
    Q_OBJECT

  public:
    explicit UpdateBanner(QWidget* parent = nullptr);
    void setDecision(const UpdateDecision& decision);

    // The banner's sentence for `decision`; empty when there is no banner.
    static QString sentence(const UpdateDecision& decision);

  Q_SIGNALS:
    void downloadRequested();

  private:
    QLabel* text_;
    QPushButton* download_;
};

}  // namespace pavix
