#include "ui/FloatingBar.h"

#include <QGuiApplication>
#include <QMouseEvent>
#include <QScreen>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWindow>

#include "core/session/Studio.h"
#include "ui/AccountPopover.h"
#include "ui/FloatingBarView.h"
#include "ui/SourcesPopover.h"
#include "ui/StudioBridge.h"

namespace pavix {

FloatingBar::FloatingBar(StudioBridge& bridge, QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint),
      bridge_(bridge) {
    setWindowTitle("Pavix");
    setAttribute(Qt::WA_TranslucentBackground);
    view_ = new FloatingBarView;
    sources_ = new SourcesPopover(bridge_, this);
    account_ = new AccountPopover(bridge_, this);
    view_->sourceButton()->setMenu(sources_);
    view_->accountButton()->setMenu(account_);
    connect(view_, &FloatingBarView::recordPressed, this,
            [this] { bridge_.spawn([](Studio& studio) { return studio.recordNow(); }); });
    connect(view_, &FloatingBarView::stopPressed, this,
            [this] { bridge_.spawn([](Studio& studio) { return studio.stopAnyRecording(); }); });
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(view_);
    connect(&bridge_, &StudioBridge::changed, this, &FloatingBar::render);
    render();
}

void FloatingBar::render() {
    const auto& snapshot = bridge_.snapshot();
    view_->render(snapshot);
    if (snapshot.state.showHUD && !isVisible()) {
        placeOnScreen();
        show();
    } else if (!snapshot.state.showHUD && isVisible()) {
        hide();
    }
}

// The first time: centred near the top of the screen under the pointer.
void FloatingBar::placeOnScreen() {
    if (placed_) {
        return;
    }
    placed_ = true;
    adjustSize();
    auto* screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen) {
        screen = QGuiApplication::primaryScreen();
    }
    if (!screen) {
        return;
    }
    auto area = screen->availableGeometry();
    move(area.center().x() - width() / 2, area.top() + 24);
}

void FloatingBar::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        return;
    }
    // The window manager moves the bar where it can (it then also keeps it on screen);
    // otherwise the bar follows the pointer itself.
    if (windowHandle() && windowHandle()->startSystemMove()) {
        return;
    }
    grab_ = event->globalPosition().toPoint() - frameGeometry().topLeft();
}

void FloatingBar::mouseMoveEvent(QMouseEvent* event) {
    if (event->buttons() & Qt::LeftButton) {
        move(event->globalPosition().toPoint() - grab_);
    }
}

}  // namespace pavix
