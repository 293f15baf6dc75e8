#pragma once

#include <stdexcept>
#include <string>

namespace pavix {

// A request that got no HTTP reply: no connection, a time-out, a dropped connection, a reply
// too large to accept. `code` follows the URL-loading error numbers (-1001 timed out, -1004
// cannot connect, -1005 connection lost, -1103 reply too large, ...), so that the diagnostic
// code "url_" + |code| means the same thing on every platform.
class TransportError : public std::runtime_error {
  public:
    TransportError(int code, const std::string& message, std::string detail = {})
        : std::runtime_error(message), code_(code), detail_(std::move(detail)) {}
    int code() const { return code_; }
    // The transport's own account of the failure, for the log.
    const std::string& detail() const { return detail_; }

    static constexpr int kUnknown = -1;
    static constexpr int kCancelled = -999;
    static constexpr int kBadURL = -1000;
    static constexpr int kTimedOut = -1001;
    static constexpr int kUnsupportedURL = -1002;
    static constexpr int kCannotFindHost = -1003;
    static constexpr int kCannotConnect = -1004;
    static constexpr int kConnectionLost = -1005;
    static constexpr int kBadServerResponse = -1011;
    static constexpr int kDataTooLarge = -1103;
    static constexpr int kSecureConnectionFailed = -1200;
    static constexpr int kCannotOpenFile = -3000;

  private:
    int code_;
    std::string detail_;
};

}  // namespace pavix
