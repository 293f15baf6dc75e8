#pragma once

#include <filesystem>

#include "platform/SecretStore.h"

namespace pavix {

// Secrets kept as files readable only by the user (0600 in a 0700 folder), one file per
// service and account. The fallback when no Secret Service answers on the session bus.
class FileSecretStore : public SecretStore {
public:
    explicit FileSecretStore(std::filesystem::path folder);

    std::optional<std::string> load(const std::string& service,
                                    const std::string& account) override;
    void save(const std::string& service, const std::string& account, const std::string& label,
              const std::string& secret) override;
    void remove(const std::string& service, const std::string& account) override;

    const std::filesystem::path& folder() const { return folder_; }

private:
    std::filesystem::path fileFor(const std::string& service, const std::string& account) const;

    std::filesystem::path folder_;
};

}  // namespace pavix
