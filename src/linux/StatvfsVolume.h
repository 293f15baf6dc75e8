#pragma once

#include "platform/Volume.h"

namespace pavix {

// Free space from statvfs: the blocks available to an unprivileged user.
class StatvfsVolume : public Volume {
  public:
    std::optional<std::int64_t> freeBytes(const std::filesystem::path& folder) override;
};

}  // namespace pavix
