#include "ui/CaptureIndicator.h"

#include <QGuiApplication>
#include <QLabel>
#include <QScreen>

#include "ui/StudioBridge.h"

namespace pavix {

CaptureIndicator::CaptureIndicator(StudioBridge& bridge, QObject* parent)
    : QObject(parent), bridge_(bridge) {
    connect(&bridge_, &StudioBridge::changed, this, &CaptureIndicator::render);
    connect(qApp, &QGuiApplication::screenAdded, this, &CaptureIndicator::place);
    connect(qApp, &QGuiApplication::screenRemoved, this, &CaptureIndicator::place);
    render();
}

CaptureIndicator::~CaptureIndicator() = default;

void CaptureIndicator::render() {
    const bool recording = bridge_.snapshot().state.recording;
    if (recording == !marks_.empty()) {
        return;
    }
    if (recording) {
        place();
    } else {
        marks_.clear();
    }
}

void CaptureIndicator::place() {
    marks_.clear();
    if (!bridge_.snapshot().state.recording) {
        return;
    }
    for (auto* screen : QGuiApplication::screens()) {
        auto mark = std::make_unique<QLabel>(QString::fromUtf8("\u25CF Recording"));
        mark->setWindowFlags(Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                             Qt::WindowTransparentForInput | Qt::WindowDoesNotAcceptFocus);
        mark->setAttribute(Qt::WA_ShowWithoutActivating);
        mark->setStyleSheet(
            "QLabel { background: #d93025; color: white; font-weight: 600;"
            " padding: 3px 10px; border-radius: 4px; }");
        mark->setAccessibleName("Recording indicator");
        mark->adjustSize();
        auto area = screen->availableGeometry();
        mark->move(area.right() - mark->width() - 12, area.top() + 12);
        mark->show();
        marks_.push_back(std::move(mark));
    }
}

}  // namespace pavix
