#include "core/net/HttpRequest.h"

#include <strings.h>

namespace pavix {

std::optional<std::string> HttpRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (::strcasecmp(key.c_str(), name.c_str()) == 0) {
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace pavix
