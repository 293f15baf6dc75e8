#pragma once

#include <QIcon>
#include <QString>

class QApplication;
class QToolButton;
class QWidget;

namespace pavix::Theme {

// The light appearance of the whole application, whatever the desktop's theme: the Fusion
// style, a light palette and the few styles of our own (the primary button, section titles,
// secondary text, the status line).
void apply(QApplication& app);

// One of our own icons by name ("record", "stop", "window", …).
QIcon icon(const QString& name);

// A flat button that shows one of our icons, named by `name` for its tool tip and for screen
// readers, and reachable with the keyboard.
QToolButton* iconButton(const QString& icon, const QString& name);

// Marks a widget for one of the styles: "primary", "section", "secondary", "status", "badge".
void setRole(QWidget* widget, const char* role);
// Sets the tone of a styled widget ("live", "on", "required", or "" for none) and restyles it.
void setTone(QWidget* widget, const char* tone);

}  // namespace pavix::Theme
