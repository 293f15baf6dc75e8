#pragma once

#include <QWidget>

class QVBoxLayout;

namespace pavix {

class SettingsRow;

// A titled group of settings rows, with an optional note under the title.
class SettingsGroup : public QWidget {
    Q_OBJECT

  public:
    SettingsGroup(const QString& title, const QString& note = {}, QWidget* parent = nullptr);
    void add(SettingsRow* row);

  private:
    QVBoxLayout* rows_;
};

}  // namespace pavix
