#pragma once

#include <QWidget>

namespace pavix {

// One setting: its name, an explanation beneath when it needs one, and its control on the
// right (a check box, a field or a button).
class SettingsRow : public QWidget {
    Q_OBJECT

  public:
    SettingsRow(const QString& title, const QString& explanation, QWidget* control,
                QWidget* parent = nullptr);
};

}  // namespace pavix
