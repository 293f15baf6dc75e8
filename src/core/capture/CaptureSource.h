#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/capture/CaptureFilter.h"

namespace pavix {

// One recordable window or display.
struct CaptureSource {
    std::string id;  // "window-<id>" or "display-<id>"
    std::string title;
    CaptureFilter filter;
    std::int64_t width = 0;  // points
    std::int64_t height = 0;
    std::vector<std::uint32_t> windowIDs;
    std::vector<std::uint32_t> displayIDs;

    bool isDisplay() const { return id.rfind("display-", 0) == 0; }
    bool operator==(const CaptureSource&) const = default;
};

}  // namespace pavix
