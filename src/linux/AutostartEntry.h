#pragma once

#include <filesystem>
#include <string>

namespace pavix {

// Start at login: a freedesktop autostart entry ($XDG_CONFIG_HOME/autostart/pavix.desktop)
// that the desktop runs when the user logs in. Off unless the user turned it on.
class AutostartEntry {
  public:
    explicit AutostartEntry(std::filesystem::path configFolder);

    bool enabled() const;
    // Writes the entry (starting `executable`) or removes it. Throws std::runtime_error with a
    // sentence when the folder cannot be written.
    void setEnabled(bool on, const std::string& executable);

    const std::filesystem::path& file() const { return file_; }

  private:
    std::filesystem::path file_;
};

}  // namespace pavix
