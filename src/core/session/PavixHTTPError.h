#pragma once

#include <exception>
#include <optional>
#include <string>

namespace pavix {

// A reply from the service other than 200, or no reply at all (status 0). Its description is
// the user sentence for the refusal.
class PavixHTTPError : public std::exception {
  public:
    PavixHTTPError(int status, std::optional<std::string> code);

    int status() const { return status_; }
    const std::optional<std::string>& code() const { return code_; }
    // Whether the failure is worth a reconnect rather than a disconnect.
    bool transient() const;
    const char* what() const noexcept override { return description_.c_str(); }

  private:
    int status_;
    std::optional<std::string> code_;
    std::string description_;
};

}  // namespace pavix
