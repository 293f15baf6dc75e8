#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pavix {

// The installed applications' desktop entries (freedesktop .desktop files), used to name the
// application that owns a window.
class X11DesktopEntries {
  public:
    struct Entry {
        std::string id;       // the file name without ".desktop", subfolders joined by "-"
        std::string name;     // Name=
        std::string wmClass;  // StartupWMClass=
        std::string program;  // the file name of Exec='s program
    };

    // `folders` are searched in order ("…/applications"); the first entry of an id wins.
    explicit X11DesktopEntries(std::vector<std::string> folders = defaultFolders());

    // $XDG_DATA_HOME/applications, then each of $XDG_DATA_DIRS/applications.
    static std::vector<std::string> defaultFolders();

    // The entry of a window's application, tried in this order: the GTK application id, the
    // entry that declares the window's WM_CLASS, an entry named after the WM_CLASS instance or
    // class, and the entry whose program is the process's executable.
    std::optional<Entry> find(const std::string& gtkApplicationId, const std::string& instance,
                              const std::string& className, const std::string& executable) const;

    // A name for an application without a desktop entry, made from its WM_CLASS
    // ("gnome-calculator" → "Gnome Calculator"); "" when both parts are empty.
    static std::string readableClass(const std::string& instance, const std::string& className);

  private:
    void load(const std::string& folder, const std::string& prefix);

    std::vector<Entry> entries_;
};

}  // namespace pavix
