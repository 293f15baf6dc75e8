#include "linux/StatvfsVolume.h"

#include <sys/statvfs.h>

namespace pavix {

std::optional<std::int64_t> StatvfsVolume::freeBytes(const std::filesystem::path& folder) {
    // The folder may not exist yet: measure the nearest existing ancestor, which is on the
    // volume the folder will be created on.
    auto probe = folder;
    std::error_code error;
    while (!probe.empty() && !std::filesystem::exists(probe, error)) {
        if (probe == probe.parent_path()) {
            break;
        }
        probe = probe.parent_path();
    }
    struct statvfs info {};
    if (probe.empty() || ::statvfs(probe.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(info.f_bavail) * static_cast<std::int64_t>(info.f_frsize);
}

}  // namespace pavix
