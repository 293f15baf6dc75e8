#include "linux/X11DesktopEntries.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace pavix {
namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The program of an Exec= line: its first word without path, quotes or env assignments.
std::string programOf(const std::string& exec) {
    std::istringstream words(exec);
    std::string word;
    while (words >> word) {
        if (word == "env" || word.find('=') != std::string::npos) {
            continue;
        }
        word.erase(std::remove(word.begin(), word.end(), '"'), word.end());
        return std::filesystem::path(word).filename().string();
    }
    return "";
}

std::string lastDotPart(const std::string& id) {
    auto dot = id.rfind('.');
    return dot == std::string::npos ? id : id.substr(dot + 1);
}

}  // namespace

X11DesktopEntries::X11DesktopEntries(std::vector<std::string> folders) {
    for (const auto& folder : folders) {
        load(folder, "");
    }
}

std::vector<std::string> X11DesktopEntries::defaultFolders() {
    std::vector<std::string> folders;
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    const char* home = std::getenv("HOME");
    if (dataHome != nullptr && *dataHome != '\0') {
        folders.push_back(std::string(dataHome) + "/applications");
    } else if (home != nullptr) {
        folders.push_back(std::string(home) + "/.local/share/applications");
    }
    const char* dataDirs = std::getenv("XDG_DATA_DIRS");
    std::string dirs =
        dataDirs != nullptr && *dataDirs != '\0' ? dataDirs : "/usr/local/share:/usr/share";
    std::istringstream parts(dirs);
    std::string part;
    while (std::getline(parts, part, ':')) {
        if (!part.empty()) {
            folders.push_back(part + "/applications");
        }
    }
    return folders;
}

void X11DesktopEntries::load(const std::string& folder, const std::string& prefix) {
    std::error_code error;
    for (const auto& item : std::filesystem::directory_iterator(folder, error)) {
        const auto& path = item.path();
        if (item.is_directory(error)) {
            // Entries in subfolders are named with the folder: kde/foo.desktop is "kde-foo".
            load(path.string(), prefix + path.filename().string() + "-");
            continue;
        }
        if (path.extension() != ".desktop") {
            continue;
        }
        Entry entry;
        entry.id = prefix + path.stem().string();
        if (std::any_of(entries_.begin(), entries_.end(),
                        [&](const Entry& known) { return known.id == entry.id; })) {
            continue;
        }
        std::ifstream file(path);
        std::string line;
        bool main = false, hidden = false;
        while (std::getline(file, line)) {
            if (line.starts_with("[")) {
                main = line.starts_with("[Desktop Entry]");
                continue;
            }
            if (!main) {
                continue;
            }
            if (line.starts_with("Name=")) {
                entry.name = line.substr(5);
            } else if (line.starts_with("StartupWMClass=")) {
                entry.wmClass = line.substr(15);
            } else if (line.starts_with("Exec=")) {
                entry.program = programOf(line.substr(5));
            } else if (line == "Hidden=true") {
                hidden = true;
            }
        }
        if (!hidden && !entry.name.empty()) {
            entries_.push_back(std::move(entry));
        }
    }
}

std::optional<X11DesktopEntries::Entry> X11DesktopEntries::find(
    const std::string& gtkApplicationId, const std::string& instance, const std::string& className,
    const std::string& executable) const {
    auto first = [&](auto matches) -> std::optional<Entry> {
        auto found = std::find_if(entries_.begin(), entries_.end(), matches);
        if (found == entries_.end()) {
            return std::nullopt;
        }
        return *found;
    };
    if (!gtkApplicationId.empty()) {
        if (auto entry = first([&](const Entry& e) { return e.id == gtkApplicationId; })) {
            return entry;
        }
    }
    for (const auto& name : {className, instance}) {
        if (name.empty()) {
            continue;
        }
        if (auto entry = first([&](const Entry& e) { return e.wmClass == name; })) {
            return entry;
        }
    }
    for (const auto& name : {instance, className}) {
        if (name.empty()) {
            continue;
        }
        std::string wanted = lower(name);
        if (auto entry = first([&](const Entry& e) {
                return lower(e.id) == wanted || lower(lastDotPart(e.id)) == wanted;
            })) {
            return entry;
        }
    }
    if (!executable.empty()) {
        std::string program = std::filesystem::path(executable).filename().string();
        if (auto entry = first([&](const Entry& e) {
                return e.program == program || lower(e.id) == lower(program);
            })) {
            return entry;
        }
    }
    return std::nullopt;
}

std::string X11DesktopEntries::readableClass(const std::string& instance,
                                             const std::string& className) {
    std::string name = lastDotPart(className.empty() ? instance : className);
    bool wordStart = true;
    for (auto& c : name) {
        if (c == '-' || c == '_') {
            c = ' ';
            wordStart = true;
        } else if (wordStart) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            wordStart = false;
        }
    }
    return name;
}

}  // namespace pavix
