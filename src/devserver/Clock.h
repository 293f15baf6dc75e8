#pragma once

#include <chrono>
#include <cstdint>

namespace pavix::devserver {

// Wall-clock milliseconds since 1970, the unit of every expiry time the service hands out.
inline int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace pavix::devserver
