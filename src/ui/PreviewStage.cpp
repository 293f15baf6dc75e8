#include "ui/PreviewStage.h"

#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <memory>

#include "core/session/Studio.h"
#include "ui/StudioBridge.h"

namespace pavix {
namespace {

// The picture's pixels are BGRA with the fourth byte undefined: Qt's RGB32 on a little-endian
// machine, which ignores that byte. Copied, so that the capture's buffer can go back to it.
QImage imageOf(const VideoFrame& frame) {
    if (!frame.pixels || frame.width <= 0 || frame.height <= 0 ||
        frame.pixels->size() < static_cast<std::size_t>(frame.stride) * frame.height) {
        return {};
    }
    return QImage(frame.pixels->data(), frame.width, frame.height, frame.stride,
                  QImage::Format_RGB32)
        .copy();
}

}  // namespace

PreviewStage::PreviewStage(StudioBridge& bridge, QWidget* parent)
    : QWidget(parent), bridge_(bridge) {
    setAccessibleName("Preview");
    setMinimumSize(160, 90);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    timer_.setSingleShot(true);
    timer_.setInterval(kRefreshMs);
    connect(&timer_, &QTimer::timeout, this, &PreviewStage::refresh);
    connect(&bridge_, &StudioBridge::changed, this, &PreviewStage::follow);
    follow();
}

QString PreviewStage::caption() const {
    const auto& s = bridge_.snapshot().state;
    if (s.selection.empty()) {
        return "Choose a source to see it here.";
    }
    if (bridge_.snapshot().phase != RecordingLifecycle::Phase::idle) {
        return picture_.isNull() ? "" : "Preview pauses while recording.";
    }
    if (picture_.isNull()) {
        return failed_ ? "No picture of this source right now." : "";
    }
    return "";
}

bool PreviewStage::wanted() const {
    const auto& snapshot = bridge_.snapshot();
    return isVisible() && !window()->isMinimized() && !snapshot.state.selection.empty() &&
           snapshot.phase == RecordingLifecycle::Phase::idle;
}

void PreviewStage::follow() {
    const auto& selection = bridge_.snapshot().state.selection;
    if (selection != source_) {
        source_ = selection;
        picture_ = QImage();
        failed_ = false;
        timer_.stop();
        refresh();  // a new selection is shown at once
    } else if (wanted() && !pending_ && !timer_.isActive()) {
        timer_.start();  // back from a recording
    }
    update();
}

void PreviewStage::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!pending_ && !timer_.isActive()) {
        refresh();
    }
}

void PreviewStage::refresh() {
    if (pending_ || !wanted()) {
        return;  // a hidden or recording window asks again when it is shown or idle
    }
    pending_ = true;
    ++requests_;
    const qreal scale = devicePixelRatioF();
    const int width = std::max(2, static_cast<int>(this->width() * scale));
    const int height = std::max(2, static_cast<int>(this->height() * scale));
    auto result = std::make_shared<std::optional<VideoFrame>>();
    auto asked = source_;
    bridge_.spawn(
        [result, width, height](Studio& studio) -> asio::awaitable<void> {
            *result = co_await studio.preview(width, height);
        },
        [stage = QPointer<PreviewStage>(this), result, asked] {
            if (!stage) {
                return;
            }
            stage->pending_ = false;
            if (asked == stage->source_) {
                QImage image = *result ? imageOf(**result) : QImage();
                stage->failed_ = image.isNull();
                if (!image.isNull() ||
                    stage->bridge_.snapshot().phase == RecordingLifecycle::Phase::idle) {
                    stage->picture_ = image;  // a recording keeps the last still shown
                }
                stage->update();
            }
            if (stage->wanted()) {
                stage->timer_.start();
            }
        });
}

void PreviewStage::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const QRectF stage = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    QPainterPath frame;
    frame.addRoundedRect(stage, 6, 6);
    painter.fillPath(frame, QColor("#202124"));
    painter.setClipPath(frame);
    const bool recording = bridge_.snapshot().phase != RecordingLifecycle::Phase::idle;
    if (!picture_.isNull()) {
        QSizeF shown = QSizeF(picture_.size()).scaled(stage.size(), Qt::KeepAspectRatio);
        QRectF target(QPointF(0, 0), shown);
        target.moveCenter(stage.center());
        painter.drawImage(target, picture_);
        if (recording) {
            painter.fillRect(stage, QColor(0, 0, 0, 140));
        }
    }
    const auto text = caption();
    if (!text.isEmpty()) {
        painter.setPen(QColor("#e8eaed"));
        painter.drawText(stage.adjusted(12, 8, -12, -8), Qt::AlignCenter | Qt::TextWordWrap, text);
    }
}

}  // namespace pavix
