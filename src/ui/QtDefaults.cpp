#include "ui/QtDefaults.h"

namespace pavix {

QtDefaults::QtDefaults()
    : settings_(QSettings::IniFormat, QSettings::UserScope, "pavix", "pavix") {}

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
