#pragma once

#include <optional>
#include <string>

namespace pavix {

// A store of small secrets keyed by a service name and an account. Calls may block (a keyring
// prompt, a D-Bus round trip): callers run them on the worker pool. Failures throw
// KeychainError.
class SecretStore {
  public:
    virtual ~SecretStore() = default;
    virtual std::optional<std::string> load(const std::string& service,
                                            const std::string& account) = 0;
    // Adds the item, or replaces the secret of an existing one.
    virtual void save(const std::string& service, const std::string& account,
                      const std::string& label, const std::string& secret) = 0;
    // Removing an item that does not exist is not an error.
    virtual void remove(const std::string& service, const std::string& account) = 0;
};

}  // namespace pavix
