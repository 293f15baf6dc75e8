#pragma once

#include <filesystem>
#include <string>

namespace pavix::XdgFolders {

// The user's home folder from the password database ($HOME as a fallback).
std::filesystem::path home();
// The recordings library: the XDG videos folder + "/Pavix".
std::filesystem::path library();
// The library as the user knows it: relative to home ("Videos/Pavix"), else the full path.
std::string libraryLabel(const std::filesystem::path& library);
// Pavix's own state folder: $XDG_STATE_HOME/pavix (usually ~/.local/state/pavix).
std::filesystem::path state();

}  // namespace pavix::XdgFolders
