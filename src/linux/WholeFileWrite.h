#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string_view>

namespace pavix {

// Replaces `path` with `bytes` through a temporary file beside it, flushed to the disk before
// it takes the name: a crash or a full disk leaves the old file or the new one, never a torn
// one. A new file gets `mode` (less the umask). False, with nothing left behind, when it cannot
// be written.
bool writeWholeFile(const std::filesystem::path& path, std::string_view bytes, mode_t mode = 0644);

}  // namespace pavix
