#pragma once

#include <memory>
#include <mutex>

#include "core/runtime/Log.h"
#include "platform/SecretStore.h"

namespace pavix {

// Uses the keyring while a Secret Service answers; when none is reachable on the session bus,
// switches for good to the file store and says so once in the log.
class FallbackSecretStore : public SecretStore {
  public:
    FallbackSecretStore(std::unique_ptr<SecretStore> keyring, std::unique_ptr<SecretStore> files,
                        std::string filesFolder, Log& log);

    std::optional<std::string> load(const std::string& service,
                                    const std::string& account) override;
    void save(const std::string& service, const std::string& account, const std::string& label,
              const std::string& secret) override;
    void remove(const std::string& service, const std::string& account) override;

    bool usingFiles() const;

  private:
    template <class F>
    auto attempt(F&& call) -> decltype(call(std::declval<SecretStore&>()));

    std::unique_ptr<SecretStore> keyring_;
    std::unique_ptr<SecretStore> files_;
    std::string filesFolder_;
    Log& log_;
    mutable std::mutex mutex_;
    bool usingFiles_ = false;
};

}  // namespace pavix
