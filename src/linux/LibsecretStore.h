#pragma once

#include <chrono>

#include "platform/SecretStore.h"

namespace pavix {

// Secrets in the desktop's keyring through the Secret Service (libsecret). Items carry the
// searchable attributes "service" and "account"; the secret is the whole value.
//
// Every call gives up after `timeout`: a locked keyring may wait for a prompt that nobody
// answers, and a keyring that never answers is reported as locked, not as a hang.
class LibsecretStore : public SecretStore {
  public:
    explicit LibsecretStore(std::chrono::milliseconds timeout) : timeout_(timeout) {}

    std::optional<std::string> load(const std::string& service,
                                    const std::string& account) override;
    void save(const std::string& service, const std::string& account, const std::string& label,
              const std::string& secret) override;
    void remove(const std::string& service, const std::string& account) override;

  private:
    std::chrono::milliseconds timeout_;
};

}  // namespace pavix
