#pragma once

#include <stdexcept>
#include <string>

namespace pavix {

// The saved device credential could not be read or written. `status` follows the keychain
// status numbers (-25291 no keyring service, -25308 keyring locked, -26275 unreadable item).
class KeychainError : public std::runtime_error {
  public:
    explicit KeychainError(int status)
        : std::runtime_error("Pavix could not access its saved device credential in the keyring (" +
                             std::to_string(status) + ")."),
          status_(status) {}
    int status() const { return status_; }

    static constexpr int kNotAvailable = -25291;
    static constexpr int kInteractionNotAllowed = -25308;
    static constexpr int kItemNotFound = -25300;
    static constexpr int kDecode = -26275;
    static constexpr int kIO = -36;

  private:
    int status_;
};

}  // namespace pavix
