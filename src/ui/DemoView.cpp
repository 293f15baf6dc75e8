#include "ui/DemoView.h"

#include <QPainter>
#include <cmath>

namespace pavix {

DemoView::DemoView(QWidget* parent) : QWidget(parent) {
    setWindowTitle("Pavix Capture Demo");
    setObjectName("demo");
    resize(800, 500);
    setAttribute(Qt::WA_OpaquePaintEvent);
    frames_.setParent(this);  // a child, so that it can be found; destroyed as a member first
    frames_.setInterval(16);
    frames_.setTimerType(Qt::PreciseTimer);
    connect(&frames_, &QTimer::timeout, this, qOverload<>(&QWidget::update));
    clock_.start();
}

void DemoView::showEvent(QShowEvent*) {
    frames_.start();
}

void DemoView::hideEvent(QHideEvent*) {
    frames_.stop();  // nothing is drawn that nobody sees
}

void DemoView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const double t = clock_.elapsed() / 1000.0;
    const int w = width(), h = height();
    // Colour bars across the top two thirds.
    const QColor bars[] = {"#c0c0c0", "#c0c000", "#00c0c0", "#00c000",
                           "#c000c0", "#c00000", "#0000c0"};
    const int barHeight = h * 2 / 3;
    for (int i = 0; i < 7; ++i) {
        p.fillRect(QRect(i * w / 7, 0, (i + 1) * w / 7 - i * w / 7, barHeight), bars[i]);
    }
    p.fillRect(QRect(0, barHeight, w, h - barHeight), QColor("#202124"));
    // A sweeping line and a square that bounces along the bars.
    const int sweep = static_cast<int>(std::fmod(t * 240.0, w));
    p.fillRect(QRect(sweep, 0, 4, barHeight), Qt::white);
    const int side = std::max(24, h / 8);
    const double phase = std::fmod(t * 0.5, 2.0);
    const int x = static_cast<int>((phase < 1 ? phase : 2 - phase) * (w - side));
    const int y = static_cast<int>((0.5 + 0.4 * std::sin(t * 3.0)) * (barHeight - side));
    p.fillRect(QRect(x, y, side, side), QColor("#1a73e8"));
    // The running clock, in seconds and hundredths.
    p.setPen(Qt::white);
    auto font = p.font();
    font.setPixelSize(std::max(14, std::min((h - barHeight) / 3, w / 24)));
    font.setBold(true);
    p.setFont(font);
    p.drawText(QRect(0, barHeight, w, h - barHeight), Qt::AlignCenter,
               QString("Pavix Capture Demo  %1 s").arg(t, 0, 'f', 2));
}

}  // namespace pavix
