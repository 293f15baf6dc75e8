#include "linux/AutostartEntry.h"

#include <stdexcept>

#include "linux/WholeFileWrite.h"

namespace pavix {
namespace {

// A quoted argument of Exec=: the quote, the backquote, the dollar and the backslash are
// escaped with a backslash.
std::string quoted(const std::string& argument) {
    std::string out = "\"";
    for (char c : argument) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

}  // namespace

AutostartEntry::AutostartEntry(std::filesystem::path configFolder)
    : file_(std::move(configFolder) / "autostart" / "pavix.desktop") {}

bool AutostartEntry::enabled() const {
    std::error_code ignored;
    return std::filesystem::is_regular_file(file_, ignored);
}

void AutostartEntry::setEnabled(bool on, const std::string& executable) {
    std::error_code error;
    if (!on) {
        std::filesystem::remove(file_, error);
        if (error) {
            throw std::runtime_error("Could not turn off start at login: " + error.message());
        }
        return;
    }
    std::filesystem::create_directories(file_.parent_path(), error);
    // Exec= quotes the path: the desktop entry rules split it at blanks otherwise.
    const std::string entry =
        "[Desktop Entry]\n"
        "Type=Application\n"
        "Name=Pavix\n"
        "Comment=Record and share windows with your agent\n"
        "Exec=" +
        quoted(executable) +
        "\n"
        "Icon=app.pavix.Pavix\n"
        "Terminal=false\n"
        "X-GNOME-Autostart-enabled=true\n";
    if (!writeWholeFile(file_, entry)) {
        throw std::runtime_error("Could not turn on start at login: " + file_.string() +
                                 " cannot be written.");
    }
}

}  // namespace pavix
