// Qt first: Xlib defines macros (Bool, Status) that Qt's headers refuse to follow.
#include <QPixmap>

#include "ui/FloatingBarView.h"
#include "ui/LaunchSwitches.h"
#include "ui/QtDefaults.h"

#include <cstdio>
#include <fstream>

#include "core/session/ErrorText.h"
#include "core/session/StudioSnapshot.h"
#include "linux/Permissions.h"
#include "linux/X11ShareableContent.h"

namespace pavix::LaunchSwitches {
namespace {

// Writes `text` next to `file` and renames it into place: a reader sees all or nothing.
bool writeAtomically(const std::filesystem::path& file, const std::string& text) {
    auto temporary = file;
    temporary += ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out.flush()) {
            return false;
        }
    }
    return std::rename(temporary.c_str(), file.c_str()) == 0;
}

}  // namespace

int checkPermission(std::ostream& out, const std::string& executable) {
    const bool granted = Permissions::screenRecording();
    out << "screen-recording-granted=" << (granted ? "true" : "false") << " bundle=" << executable
        << "\n";
    return granted ? 0 : 2;
}

int listSources(Log& log, const std::filesystem::path& file) {
    std::string text;
    try {
        auto content = X11ShareableContent().current();
        char line[96];
        std::snprintf(line, sizeof line, "Pavix list-sources ok: %ld windows, %ld displays",
                      static_cast<long>(content.windows.size()),
                      static_cast<long>(content.displays.size()));
        log.line(line);
        text =
            std::to_string(content.windows.size()) + " " + std::to_string(content.displays.size());
    } catch (...) {
        auto error = std::current_exception();
        log.line("Pavix list-sources failed: " + ErrorText::describe(error));
        text = "error " + ErrorText::domain(error) + " " +
               std::to_string(ErrorText::number(error)) + " " + ErrorText::describe(error);
    }
    if (!writeAtomically(file, text)) {
        log.line("Pavix list-sources could not write " + file.string());
    }
    return 0;
}

int snapshotBar(const std::string& path, std::ostream& err) {
    // The bar as it opens: the settings' state, not yet paired or sharing.
    StudioSnapshot snapshot;
    QtDefaults defaults;
    snapshot.state.showHUD = defaults.boolean("showBar").value_or(true);
    FloatingBarView view;
    view.render(snapshot);
    view.adjustSize();
    if (!view.grab().save(QString::fromStdString(path), "PNG")) {
        err << "pavix: could not write the snapshot to " << path << "\n";
        return 1;
    }
    return 0;
}

}  // namespace pavix::LaunchSwitches
