#include "ui/FloatingBarView.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QTimer>
#include <QToolButton>

#include "ui/Theme.h"

namespace pavix {

FloatingBarView::FloatingBarView(QWidget* parent) : QWidget(parent) {
    setObjectName("bar");
    setStyleSheet(
        "#bar { background: #ffffff; border: 1px solid #dadce0; border-radius: 10px; }"
        "#dot { border-radius: 5px; }");
    setAttribute(Qt::WA_StyledBackground);
    dot_ = new QLabel;
    dot_->setObjectName("dot");
    dot_->setFixedSize(10, 10);
    state_ = new QLabel;
    state_->setAccessibleName("State");
    state_->setMinimumWidth(140);
    state_->setMaximumWidth(260);
    elapsed_ = new QLabel;
    elapsed_->setAccessibleName("Recorded time");
    auto font = elapsed_->font();
    font.setBold(true);
    elapsed_->setFont(font);
    source_ = Theme::iconButton("window", "Source");
    source_->setPopupMode(QToolButton::InstantPopup);
    record_ = Theme::iconButton("record", "Record it yourself");
    connect(record_, &QToolButton::clicked, this, [this] {
        if (snapshot_.state.recording) {
            Q_EMIT stopPressed();
        } else {
            Q_EMIT recordPressed();
        }
    });
    account_ = Theme::iconButton("pavix", "Account");
    account_->setPopupMode(QToolButton::InstantPopup);

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(12, 6, 6, 6);
    row->setSpacing(8);
    row->addWidget(dot_);
    row->addWidget(state_, 1);
    row->addWidget(elapsed_);
    for (auto* button : {source_, record_, account_}) {
        button->setIconSize(QSize(18, 18));
        row->addWidget(button);
    }

    auto* clock = new QTimer(this);
    clock->setInterval(500);
    connect(clock, &QTimer::timeout, this, &FloatingBarView::tick);
    clock->start();
    render(snapshot_);
}

void FloatingBarView::render(const StudioSnapshot& snapshot) {
    snapshot_ = snapshot;
    const auto& s = snapshot.state;
    const char* colour = s.recording ? "#d93025" : s.connected ? "#1e8e3e" : "#9aa0a6";
    dot_->setStyleSheet(QString("background: %1;").arg(colour));
    auto text = stateText(snapshot);
    state_->setText(state_->fontMetrics().elidedText(text, Qt::ElideRight, 260));
    state_->setToolTip(text);
    record_->setIcon(Theme::icon(s.recording ? "stop" : "record"));
    record_->setToolTip(s.recording ? "Stop" : "Record it yourself");
    record_->setAccessibleName(record_->toolTip());
    record_->setEnabled(s.recording ? snapshot.phase == RecordingLifecycle::Phase::recording
                                    : !snapshot.recordBlocker);
    source_->setEnabled(!s.recording && !s.busy);
    tick();
}

void FloatingBarView::tick() {
    if (!snapshot_.recordingSince) {
        elapsed_->hide();
        return;
    }
    auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - *snapshot_.recordingSince);
    elapsed_->setText(elapsedText(elapsed));
    elapsed_->show();
}

QString FloatingBarView::stateText(const StudioSnapshot& snapshot) {
    const auto& s = snapshot.state;
    if (s.recording) {
        return QString::fromStdString("Recording " + s.recordingSource);
    }
    if (s.uploading) {
        return QString("Uploading %1%").arg(static_cast<int>(s.uploadProgress * 100));
    }
    QString source;
    for (const auto& candidate : s.sources) {
        if (candidate.id == s.selection) {
            source = QString::fromStdString(candidate.title);
        }
    }
    if (s.connected) {
        return source.isEmpty() ? "Shared with your agent" : "Sharing " + source;
    }
    if (!s.paired) {
        return "Not paired";
    }
    return source.isEmpty() ? "Choose a source" : "Ready · " + source;
}

QString FloatingBarView::elapsedText(std::chrono::seconds elapsed) {
    const auto seconds = elapsed.count();
    return QString("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace pavix
