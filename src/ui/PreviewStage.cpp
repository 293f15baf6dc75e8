#include "ui/PreviewStage.h"

#include <QApplication>
#include <QEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <mutex>

#include "core/session/Studio.h"
#include "ui/StudioBridge.h"

namespace pavix {
namespace {

// The picture's pixels are BGRA with the fourth byte undefined: Qt's RGB32 on a little-endian
// machine, which ignores that byte. Copied, so that the capture's buffer can go back to it.
QImage imageOf(const VideoFrame& frame) {
    if (frame.layout != PixelLayout::bgra || !frame.holdsPicture()) {
        return {};
    }
    return QImage(frame.pixels->data(), frame.width, frame.height, frame.stride,
                  QImage::Format_RGB32)
        .copy();
}

}  // namespace

// Where the preview stream's thread leaves its latest picture. Pictures that come faster than
// the window takes them replace each other; one delivery at a time is queued.
struct PreviewStage::Mailbox {
    std::mutex mutex;
    QImage latest;
    bool queued = false;
    QPointer<PreviewStage> stage;  // read on the window thread only

    void post(QImage image, const std::shared_ptr<Mailbox>& self) {
        {
            std::lock_guard lock(mutex);
            latest = std::move(image);
            if (queued) {
                return;
            }
            queued = true;
        }
        QMetaObject::invokeMethod(
            qApp,
            [self] {
                QImage image;
                {
                    std::lock_guard lock(self->mutex);
                    image = std::move(self->latest);
                    self->queued = false;
                }
                if (self->stage) {
                    self->stage->receive(std::move(image));
                }
            },
            Qt::QueuedConnection);
    }
};

PreviewStage::PreviewStage(StudioBridge& bridge, QWidget* parent)
    : QWidget(parent), bridge_(bridge), mailbox_(std::make_shared<Mailbox>()) {
    mailbox_->stage = this;
    setAccessibleName("Preview");
    setMinimumSize(160, 90);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    patience_.setSingleShot(true);
    patience_.setInterval(kPatienceMs);
    connect(&patience_, &QTimer::timeout, this, [this] {
        waitedInVain_ = true;
        update();
        ask(true);
    });
    connect(&bridge_, &StudioBridge::changed, this, &PreviewStage::follow);
    follow();
}

PreviewStage::~PreviewStage() {
    mailbox_->stage = nullptr;
    if (!asked_.isEmpty()) {
        bridge_.call([](Studio& studio) { studio.setPreview(std::nullopt); });
    }
}

bool PreviewStage::recording() const {
    const auto phase = bridge_.snapshot().phase;
    return phase != RecordingLifecycle::Phase::idle &&
           phase != RecordingLifecycle::Phase::uploading;
}

QString PreviewStage::caption() const {
    if (bridge_.snapshot().state.selection.empty()) {
        return "Choose a source to see it here.";
    }
    if (recording()) {
        return picture_.isNull() ? "" : "Preview pauses while recording.";
    }
    if (picture_.isNull() && waitedInVain_) {
        return "No picture of this source right now.";
    }
    return "";
}

void PreviewStage::ask(bool again) {
    QSize wanted;
    if (isVisible() && !window()->isMinimized()) {
        const qreal scale = devicePixelRatioF();
        wanted = QSize(static_cast<int>(width() * scale), static_cast<int>(height() * scale));
    }
    if (wanted == asked_ && !again) {
        return;
    }
    asked_ = wanted;
    if (wanted.isEmpty()) {
        patience_.stop();
        bridge_.call([](Studio& studio) { studio.setPreview(std::nullopt); });
        return;
    }
    auto sink = [mailbox = mailbox_](const VideoFrame& frame) {
        mailbox->post(imageOf(frame), mailbox);
    };
    bridge_.call([width = wanted.width(), height = wanted.height(), sink](Studio& studio) {
        studio.setPreview(Studio::PreviewRequest{width, height, sink});
    });
    if (picture_.isNull()) {
        patience_.start();
    }
}

void PreviewStage::follow() {
    const auto& selection = bridge_.snapshot().state.selection;
    if (selection != source_) {
        source_ = selection;
        picture_ = QImage();
        waitedInVain_ = false;
        if (!asked_.isEmpty()) {
            patience_.start();
        }
    }
    update();
}

void PreviewStage::receive(QImage image) {
    if (image.isNull() || recording()) {
        return;  // a picture taken just before the recording began
    }
    picture_ = std::move(image);
    waitedInVain_ = false;
    patience_.stop();
    ++pictures_;
    update();
}

void PreviewStage::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    window()->installEventFilter(this);  // minimised and restored
    ask();
}

void PreviewStage::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    ask();
}

void PreviewStage::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    ask();
}

bool PreviewStage::eventFilter(QObject* watched, QEvent* event) {
    if (watched == window() && event->type() == QEvent::WindowStateChange) {
        ask();
    }
    return QWidget::eventFilter(watched, event);
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
    if (!picture_.isNull()) {
        QSizeF shown = QSizeF(picture_.size()).scaled(stage.size(), Qt::KeepAspectRatio);
        QRectF target(QPointF(0, 0), shown);
        target.moveCenter(stage.center());
        painter.drawImage(target, picture_);
        if (recording()) {
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
