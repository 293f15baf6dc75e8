#include "core/session/PavixHTTPError.h"

#include "core/capture/CaptureGuards.h"

namespace pavix {

PavixHTTPError::PavixHTTPError(int status, std::optional<std::string> code)
    : status_(status),
      code_(std::move(code)),
      description_(CaptureGuards::describe(code_, status_)) {}

bool PavixHTTPError::transient() const {
    switch (status_) {
        case 0:
        case 408:
        case 425:
        case 429:
        case 500:
        case 502:
        case 503:
        case 504:
            return true;
        default:  // 501 is deliberately not transient: the service will not learn the call.
            return code_ == "local_browser_disconnected";
    }
}

}  // namespace pavix
