#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace pavix {

// Facts about the volume that holds a folder.
class Volume {
  public:
    virtual ~Volume() = default;
    // Bytes available to the user on the folder's volume, or none when it cannot be read.
    virtual std::optional<std::int64_t> freeBytes(const std::filesystem::path& folder) = 0;
};

}  // namespace pavix
