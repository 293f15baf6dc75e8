#include "ui/SourceRow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "ui/Theme.h"

namespace pavix {

SourceRow::SourceRow(const CaptureSource& source, QWidget* parent) : QWidget(parent) {
    auto* icon = new QLabel;
    icon->setPixmap(Theme::icon(source.isDisplay() ? "display" : "window").pixmap(20, 20));
    auto* title = new QLabel(QString::fromStdString(source.title));
    title->setTextFormat(Qt::PlainText);
    title->setMinimumWidth(1);  // long titles are cut, not widening the window
    auto* detail = new QLabel(SourceRow::detail(source));
    Theme::setRole(detail, "secondary");

    auto* text = new QVBoxLayout;
    text->setSpacing(0);
    text->addWidget(title);
    text->addWidget(detail);
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(6, 4, 6, 4);
    row->setSpacing(10);
    row->addWidget(icon);
    row->addLayout(text, 1);
    setAttribute(Qt::WA_TransparentForMouseEvents);  // the list's item takes the clicks
}

QString SourceRow::detail(const CaptureSource& source) {
    return QStringLiteral("%1 · %2 × %3")
        .arg(source.isDisplay() ? tr("Display") : tr("Window"))
        .arg(source.width)
        .arg(source.height);
}

}  // namespace pavix
