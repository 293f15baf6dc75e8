#pragma once

#include <QSettings>

#include "core/app/Defaults.h"

namespace pavix {

// The user's settings in QSettings (~/.config/pavix/pavix.conf).
class QtDefaults : public Defaults {
  public:
    QtDefaults();

    std::optional<bool> boolean(const std::string& key) const override;
    std::optional<std::string> text(const std::string& key) const override;
    std::optional<long long> integer(const std::string& key) const override;
    void set(const std::string& key, bool value) override;
    void set(const std::string& key, const std::string& value) override;
    void set(const std::string& key, long long value) override;
    void remove(const std::string& key) override;

    // Where the settings are kept.
    static QString path();

  private:
    mutable QSettings settings_;
};

}  // namespace pavix
