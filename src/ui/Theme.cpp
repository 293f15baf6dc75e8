#include "ui/Theme.h"

#include <QApplication>
#include <QPalette>
#include <QStyle>
#include <QStyleFactory>
#include <QToolButton>
#include <QVariant>
#include <QWidget>

// The icons are compiled into the application's library; a static library's resources are
// registered by hand, and only once.
static void registerIcons() {
    Q_INIT_RESOURCE(icons);
}

namespace pavix::Theme {
namespace {

const char* kStyleSheet = R"(
QPushButton { padding: 5px 14px; }
QPushButton[role="primary"] {
    background: #1a73e8; color: white; border: 1px solid #1666d0; border-radius: 4px;
    font-weight: 600;
}
QPushButton[role="primary"]:hover { background: #1666d0; }
QPushButton[role="primary"]:disabled { background: #a8c7fa; border-color: #a8c7fa; }
QPushButton[role="danger"] {
    background: #d93025; color: white; border: 1px solid #c5221f; border-radius: 4px;
    font-weight: 600;
}
QLabel[role="section"] { font-weight: 600; color: #202124; margin-top: 6px; }
QLabel[role="secondary"] { color: #5f6368; }
QLabel[role="status"] {
    background: #f1f3f4; border-radius: 4px; padding: 6px 8px; color: #202124;
}
QLabel[role="badge"] {
    border-radius: 9px; padding: 2px 8px; background: #e8eaed; color: #3c4043;
}
QLabel[role="badge"][tone="live"] { background: #fce8e6; color: #c5221f; }
QLabel[role="badge"][tone="on"] { background: #e6f4ea; color: #137333; }
QFrame[role="banner"] { background: #e8f0fe; border: 1px solid #a8c7fa; border-radius: 4px; }
QFrame[role="banner"][tone="required"] { background: #fce8e6; border-color: #f6aea9; }
)";

}  // namespace

void apply(QApplication& app) {
    registerIcons();
    app.setStyle(QStyleFactory::create("Fusion"));
    QPalette light;
    light.setColor(QPalette::Window, QColor("#ffffff"));
    light.setColor(QPalette::WindowText, QColor("#202124"));
    light.setColor(QPalette::Base, QColor("#ffffff"));
    light.setColor(QPalette::AlternateBase, QColor("#f8f9fa"));
    light.setColor(QPalette::Text, QColor("#202124"));
    light.setColor(QPalette::Button, QColor("#f8f9fa"));
    light.setColor(QPalette::ButtonText, QColor("#202124"));
    // A light selection keeps the secondary text of a selected row readable.
    light.setColor(QPalette::Highlight, QColor("#d2e3fc"));
    light.setColor(QPalette::HighlightedText, QColor("#202124"));
    light.setColor(QPalette::ToolTipBase, QColor("#ffffff"));
    light.setColor(QPalette::ToolTipText, QColor("#202124"));
    light.setColor(QPalette::PlaceholderText, QColor("#80868b"));
    light.setColor(QPalette::Disabled, QPalette::Text, QColor("#9aa0a6"));
    light.setColor(QPalette::Disabled, QPalette::ButtonText, QColor("#9aa0a6"));
    light.setColor(QPalette::Disabled, QPalette::WindowText, QColor("#9aa0a6"));
    app.setPalette(light);
    app.setStyleSheet(kStyleSheet);
    app.setWindowIcon(icon("pavix"));
}

QIcon icon(const QString& name) {
    return QIcon(":/icons/" + name + ".svg");
}

QToolButton* iconButton(const QString& name, const QString& text) {
    auto* button = new QToolButton;
    button->setIcon(icon(name));
    button->setToolTip(text);
    button->setAccessibleName(text);
    button->setAutoRaise(true);
    button->setFocusPolicy(Qt::StrongFocus);
    return button;
}

void setRole(QWidget* widget, const char* role) {
    widget->setProperty("role", QString::fromLatin1(role));
}

void setTone(QWidget* widget, const char* tone) {
    if (widget->property("tone").toString() == QLatin1String(tone)) {
        return;
    }
    widget->setProperty("tone", QString::fromLatin1(tone));
    widget->style()->unpolish(widget);
    widget->style()->polish(widget);
}

}  // namespace pavix::Theme
