#include "ui/UpdateBanner.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

#include "ui/Theme.h"

namespace pavix {

UpdateBanner::UpdateBanner(QWidget* parent) : QFrame(parent) {
    Theme::setRole(this, "banner");
    text_ = new QLabel;
    text_->setWordWrap(true);
    download_ = new QPushButton(tr("Download"));
    connect(download_, &QPushButton::clicked, this, &UpdateBanner::downloadRequested);
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(10, 6, 6, 6);
    row->addWidget(text_, 1);
    row->addWidget(download_);
    hide();
}

void UpdateBanner::setDecision(const UpdateDecision& decision) {
    auto text = sentence(decision);
    setVisible(!text.isEmpty());
    text_->setText(text);
    Theme::setTone(this, decision.kind == UpdateDecision::Kind::required ? "required" : "");
}

QString UpdateBanner::sentence(const UpdateDecision& decision) {
    const auto version = QString::fromStdString(decision.version);
    switch (decision.kind) {
        case UpdateDecision::Kind::available:
            return "Pavix " + version + " is available.";
        case UpdateDecision::Kind::required:
            return "Update to Pavix " + version +
                   " to start new recordings. Current uploads continue.";
        default:
            return {};
    }
}

}  // namespace pavix
