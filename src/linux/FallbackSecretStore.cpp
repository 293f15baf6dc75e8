#include "linux/FallbackSecretStore.h"

#include "core/session/KeychainError.h"

namespace pavix {

FallbackSecretStore::FallbackSecretStore(std::unique_ptr<SecretStore> keyring,
                                         std::unique_ptr<SecretStore> files,
                                         std::string filesFolder, Log& log)
    : keyring_(std::move(keyring)),
      files_(std::move(files)),
      filesFolder_(std::move(filesFolder)),
      log_(log) {}

bool FallbackSecretStore::usingFiles() const {
    std::lock_guard lock(mutex_);
    return usingFiles_;
}

template <class F>
auto FallbackSecretStore::attempt(F&& call) -> decltype(call(std::declval<SecretStore&>())) {
    if (!usingFiles()) {
        try {
            return call(*keyring_);
        } catch (const KeychainError& e) {
            if (e.status() != KeychainError::kNotAvailable) {
                throw;
            }
            std::lock_guard lock(mutex_);
            if (!usingFiles_) {
                usingFiles_ = true;
                log_.line(
                    "no Secret Service answers on the session bus; keeping the device "
                    "credential in a file readable only by you under " +
                    filesFolder_);
            }
        }
    }
    return call(*files_);
}

std::optional<std::string> FallbackSecretStore::load(const std::string& service,
                                                     const std::string& account) {
    return attempt([&](SecretStore& store) { return store.load(service, account); });
}

void FallbackSecretStore::save(const std::string& service, const std::string& account,
                               const std::string& label, const std::string& secret) {
    attempt([&](SecretStore& store) { store.save(service, account, label, secret); });
}

void FallbackSecretStore::remove(const std::string& service, const std::string& account) {
    attempt([&](SecretStore& store) { store.remove(service, account); });
}

}  // namespace pavix
