#include "linux/XdgFolders.h"

#include <glib.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace pavix::XdgFolders {

std::filesystem::path home() {
    // $HOME first, as GLib and every desktop application read it: a session that sets its own
    // home (a sandbox, a test desktop) keeps its recordings there, not in the account's.
    if (const char* env = std::getenv("HOME"); env && *env) {
        return env;
    }
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) {
        return entry->pw_dir;
    }
    return "/";
}

std::filesystem::path library() {
    // GLib reads user-dirs.dirs under $XDG_CONFIG_HOME; without a videos entry it answers
    // nothing and the conventional ~/Videos is used.
    const char* videos = g_get_user_special_dir(G_USER_DIRECTORY_VIDEOS);
    std::filesystem::path base = videos ? std::filesystem::path(videos) : home() / "Videos";
    return base / "Pavix";
}

std::string libraryLabel(const std::filesystem::path& library) {
    auto relative = library.lexically_relative(home());
    if (!relative.empty() && relative.native().rfind("..", 0) != 0) {
        return relative.string();
    }
    return library.string();
}

std::filesystem::path state() {
    const char* env = std::getenv("XDG_STATE_HOME");
    std::filesystem::path base = env && *env ? std::filesystem::path(env) : home() / ".local/state";
    return base / "pavix";
}

}  // namespace pavix::XdgFolders
