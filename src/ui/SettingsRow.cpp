#include "ui/SettingsRow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "ui/Theme.h"

namespace pavix {

SettingsRow::SettingsRow(const QString& title, const QString& explanation, QWidget* control,
                         QWidget* parent)
    : QWidget(parent) {
    auto* name = new QLabel(title);
    name->setBuddy(control);
    control->setAccessibleName(title);
    control->setAccessibleDescription(explanation);
    auto* text = new QVBoxLayout;
    text->setSpacing(2);
    text->addWidget(name);
    if (!explanation.isEmpty()) {
        auto* more = new QLabel(explanation);
        more->setWordWrap(true);
        Theme::setRole(more, "secondary");
        text->addWidget(more);
    }
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 4, 0, 4);
    row->setSpacing(16);
    row->addLayout(text, 1);
    row->addWidget(control, 0, Qt::AlignVCenter);
}

}  // namespace pavix
