#include "ui/SourceRow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "ui/Theme.h"

namespace pavix {

SourceRow::SourceRow(const CaptureSource& source, QWidget* parent) : QWidget(parent) {
    auto* icon = new QLabel;
    icon->setPixmap(Theme::icon(source.isDisplay() ? "display" : "window").pixmap(20, 20));
    fullTitle_ = QString::fromStdString(source.title);
    auto* title = title_ = new QLabel(fullTitle_);
    title->setTextFormat(Qt::PlainText);
    // Long titles are cut to the row, never widening the list.
    title->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
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

void SourceRow::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    // The layout has placed the title before this runs, so its width is the room it has.
    title_->setText(title_->fontMetrics().elidedText(fullTitle_, Qt::ElideMiddle, title_->width()));
}

QString SourceRow::detail(const CaptureSource& source) {
    return QStringLiteral("%1 · %2 × %3")
        .arg(source.isDisplay() ? tr("Display") : tr("Window"))
        .arg(source.width)
        .arg(source.height);
}

}  // namespace pavix
