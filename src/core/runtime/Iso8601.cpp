#include "core/runtime/Iso8601.h"

#include <cmath>
#include <ctime>

namespace pavix {

std::string iso8601(double unixSeconds) {
    auto seconds = static_cast<std::time_t>(std::floor(unixSeconds));
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

}  // namespace pavix
