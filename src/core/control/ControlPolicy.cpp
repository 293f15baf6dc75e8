#include "core/control/ControlPolicy.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "core/runtime/Text.h"

namespace pavix::ControlPolicy {
namespace {

// Application ids, lower case: the other platform's bundle identifiers, then the desktop ids
// of Linux's terminals, password managers and system tools.
constexpr std::string_view kIds[] = {
    "com.apple.terminal", "com.googlecode.iterm2", "com.mitchellh.ghostty", "dev.warp.warp-stable",
    "net.kovidgoyal.kitty", "com.apple.keychainaccess", "com.apple.passwords",
    "com.1password.1password", "com.agilebits.onepassword7", "com.bitwarden.desktop",
    "com.apple.systempreferences", "com.apple.systemprofiler", "com.apple.activitymonitor",
    "com.apple.scripteditor2",
    // terminals
    "org.gnome.terminal", "gnome-terminal", "org.gnome.console", "kgx", "org.gnome.ptyxis",
    "org.kde.konsole", "konsole", "xterm", "uxterm", "kitty", "alacritty", "org.alacritty", "foot",
    "org.codeberg.dnkl.foot", "org.wezfurlong.wezterm", "com.gexperts.tilix", "terminator",
    "ghostty", "xfce4-terminal", "lxterminal", "urxvt", "rxvt-unicode", "io.elementary.terminal",
    // password managers
    "org.keepassxc.keepassxc", "keepassxc", "org.gnome.seahorse.application", "seahorse",
    "com.belmoussaoui.authenticator", "org.gnome.world.secrets", "1password", "bitwarden",
    // system tools
    "org.gnome.settings", "gnome-control-center", "systemsettings", "org.kde.systemsettings",
    "org.gnome.systemmonitor", "gnome-system-monitor", "org.kde.plasma-systemmonitor"};

// Display names, lower case, for windows whose desktop id is not known.
constexpr std::string_view kNames[] = {"terminal",
                                       "console",
                                       "konsole",
                                       "xterm",
                                       "kitty",
                                       "alacritty",
                                       "foot",
                                       "wezterm",
                                       "tilix",
                                       "terminator",
                                       "ghostty",
                                       "keepassxc",
                                       "passwords and keys",
                                       "secrets",
                                       "1password",
                                       "bitwarden",
                                       "settings",
                                       "system settings",
                                       "system monitor",
                                       "activity monitor"};

}  // namespace

bool denied(const std::string& appId, const std::optional<std::string>& appName) {
    auto id = Text::lowerAscii(appId);
    if (id.size() > 8 && id.compare(id.size() - 8, 8, ".desktop") == 0) {
        id.resize(id.size() - 8);
    }
    if (!id.empty() && std::find(std::begin(kIds), std::end(kIds), id) != std::end(kIds)) {
        return true;
    }
    return appName && std::find(std::begin(kNames), std::end(kNames), Text::lowerAscii(*appName)) !=
                          std::end(kNames);
}

}  // namespace pavix::ControlPolicy
