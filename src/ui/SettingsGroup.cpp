#include "ui/SettingsGroup.h"

#include <QFrame>
#include <QLabel>
#include <QVBoxLayout>

#include "ui/SettingsRow.h"
#include "ui/Theme.h"

namespace pavix {

SettingsGroup::SettingsGroup(const QString& title, const QString& note, QWidget* parent)
    : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 8);
    layout->setSpacing(2);
    auto* heading = new QLabel(title);
    Theme::setRole(heading, "section");
    layout->addWidget(heading);
    if (!note.isEmpty()) {
        auto* text = new QLabel(note);
        text->setWordWrap(true);
        Theme::setRole(text, "secondary");
        layout->addWidget(text);
    }
    auto* frame = new QFrame;
    frame->setFrameShape(QFrame::StyledPanel);
    rows_ = new QVBoxLayout(frame);
    rows_->setContentsMargins(12, 4, 12, 4);
    layout->addWidget(frame);
}

void SettingsGroup::add(SettingsRow* row) {
    rows_->addWidget(row);
}

}  // namespace pavix
