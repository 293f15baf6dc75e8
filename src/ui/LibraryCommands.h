#pragma once

#include <asio/awaitable.hpp>
#include <ostream>
#include <string>

#include "core/session/Studio.h"

namespace pavix::LibraryCommands {

// The local library, newest first: id, stage, start time, duration, size and file.
void list(const Studio& studio, std::ostream& out);
// Uploads a saved recording again; returns the exit status (0 when it was published).
asio::awaitable<int> retry(Studio& studio, const std::string& id);
// Moves a recording's local copy to the Trash; returns the exit status.
asio::awaitable<int> remove(Studio& studio, const std::string& id);

}  // namespace pavix::LibraryCommands
