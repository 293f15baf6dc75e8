#include "ui/QtDefaults.h"

#include <QStandardPaths>

namespace pavix {

QtDefaults::QtDefaults() : settings_(path(), QSettings::IniFormat) {}

QString QtDefaults::path() {
    // The XDG configuration folder (XDG_CONFIG_HOME, else ~/.config); the name is the one the
    // README gives, which Qt's own choice for the ini format ("pavix.ini") would not be.
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           "/pavix/pavix.conf";
}

std::optional<bool> QtDefaults::boolean(const std::string& key) const {
    auto value = settings_.value(QString::fromStdString(key));
    if (!value.isValid()) {
        return std::nullopt;
    }
    auto text = value.toString().toLower();
    if (text == "true" || text == "1") {
        return true;
    }
    if (text == "false" || text == "0") {
        return false;
    }
    return std::nullopt;
}

std::optional<std::string> QtDefaults::text(const std::string& key) const {
    auto value = settings_.value(QString::fromStdString(key));
    if (!value.isValid()) {
        return std::nullopt;
    }
    return value.toString().toStdString();
}

std::optional<long long> QtDefaults::integer(const std::string& key) const {
    auto value = settings_.value(QString::fromStdString(key));
    bool ok = false;
    auto number = value.toLongLong(&ok);
    if (!value.isValid() || !ok) {
        return std::nullopt;
    }
    return number;
}

void QtDefaults::set(const std::string& key, bool value) {
    settings_.setValue(QString::fromStdString(key), value);
}

void QtDefaults::set(const std::string& key, const std::string& value) {
    settings_.setValue(QString::fromStdString(key), QString::fromStdString(value));
}

void QtDefaults::set(const std::string& key, long long value) {
    settings_.setValue(QString::fromStdString(key), value);
}

void QtDefaults::remove(const std::string& key) {
    settings_.remove(QString::fromStdString(key));
}

}  // namespace pavix
