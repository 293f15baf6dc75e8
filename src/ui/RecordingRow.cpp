#include "ui/RecordingRow.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QProgressBar>
#include <QToolButton>
#include <QVBoxLayout>

#include "ui/Theme.h"

namespace pavix {

RecordingRow::RecordingRow(QWidget* parent) : QWidget(parent) {
    date_ = new QLabel;
    detail_ = new QLabel;
    Theme::setRole(detail_, "secondary");
    stage_ = new QLabel;
    Theme::setRole(stage_, "badge");
    progress_ = new QProgressBar;
    progress_->setRange(0, 1000);
    progress_->setTextVisible(false);
    progress_->setFixedHeight(6);
    progress_->hide();

    play_ = Theme::iconButton("play", tr("Play"));
    folder_ = Theme::iconButton("folder", tr("Show in folder"));
    retry_ = Theme::iconButton("retry", tr("Retry upload"));
    remove_ = Theme::iconButton("trash", tr("Move to Trash"));
    // A row without a retry keeps its place: the actions line up from row to row.
    auto policy = retry_->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    retry_->setSizePolicy(policy);
    connect(play_, &QToolButton::clicked, this, &RecordingRow::playRequested);
    connect(folder_, &QToolButton::clicked, this, &RecordingRow::showInFolderRequested);
    connect(retry_, &QToolButton::clicked, this, &RecordingRow::retryRequested);
    connect(remove_, &QToolButton::clicked, this, &RecordingRow::removeRequested);

    auto* text = new QVBoxLayout;
    text->setSpacing(1);
    auto* top = new QHBoxLayout;
    top->setSpacing(8);
    top->addWidget(date_);
    top->addWidget(stage_);
    top->addStretch(1);
    text->addLayout(top);
    text->addWidget(detail_);
    text->addWidget(progress_);

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(6, 4, 6, 4);
    row->addLayout(text, 1);
    for (auto* button : {play_, folder_, retry_, remove_}) {
        row->addWidget(button);
    }
}

void RecordingRow::setRecord(const LocalCapture& record, RecordActions actions,
                             std::optional<double> progress) {
    id_ = record.id;
    auto created = QDateTime::fromSecsSinceEpoch(
        static_cast<qint64>(record.createdAt + LocalCapture::kReferenceDateOffset));
    date_->setText(QLocale().toString(created, "d MMM yyyy, HH:mm"));
    detail_->setText(detail(record));
    stage_->setText(stageText(record.stage));
    const bool live = record.stage == LocalCapture::Stage::recording ||
                      record.stage == LocalCapture::Stage::uploading;
    Theme::setTone(stage_, live                                            ? "live"
                           : record.stage == LocalCapture::Stage::uploaded ? "on"
                                                                           : "");
    progress_->setVisible(progress.has_value());
    progress_->setValue(progress ? static_cast<int>(*progress * 1000) : 0);
    play_->setEnabled(actions.canManage);
    retry_->setEnabled(actions.canRetry);
    remove_->setEnabled(actions.canManage);
    // Retrying is offered only where it can be of use.
    retry_->setVisible(record.stage != LocalCapture::Stage::uploaded);
}

QString RecordingRow::stageText(LocalCapture::Stage stage) {
    switch (stage) {
        case LocalCapture::Stage::recording:
            return tr("Recording");
        case LocalCapture::Stage::finalizing:
            return tr("Saving");
        case LocalCapture::Stage::saved:
            return tr("Saved");
        case LocalCapture::Stage::uploading:
            return tr("Uploading");
        case LocalCapture::Stage::uploaded:
            return tr("Uploaded");
        case LocalCapture::Stage::interrupted:
            return tr("Interrupted");
    }
    return {};
}

QString RecordingRow::detail(const LocalCapture& record) {
    auto size = QStringLiteral("%1 × %2").arg(record.width).arg(record.height);
    if (!record.durationMs) {
        return size;
    }
    const auto seconds = (*record.durationMs + 500) / 1000;
    return QStringLiteral("%1:%2 · %3")
        .arg(seconds / 60)
        .arg(seconds % 60, 2, 10, QLatin1Char('0'))
        .arg(size);
}

}  // namespace pavix
