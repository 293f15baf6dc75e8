#include "linux/FileSecretStore.h"

#include <openssl/evp.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/session/KeychainError.h"
#include "linux/WholeFileWrite.h"

namespace pavix {
namespace {

std::string sha256Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

}  // namespace

FileSecretStore::FileSecretStore(std::filesystem::path folder) : folder_(std::move(folder)) {}

std::filesystem::path FileSecretStore::fileFor(const std::string& service,
                                               const std::string& account) const {
    return folder_ / ("credential-" + sha256Hex(service + '\n' + account) + ".json");
}

std::optional<std::string> FileSecretStore::load(const std::string& service,
                                                 const std::string& account) {
    std::ifstream in(fileFor(service, account), std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    auto item = nlohmann::json::parse(text.str(), nullptr, false);
    if (!item.is_object() || !item.contains("secret") || !item["secret"].is_string() ||
        item.value("service", "") != service || item.value("account", "") != account) {
        throw KeychainError(KeychainError::kDecode);
    }
    return item["secret"].get<std::string>();
}

void FileSecretStore::save(const std::string& service, const std::string& account,
                           const std::string& label, const std::string& secret) {
    std::error_code error;
    std::filesystem::create_directories(folder_, error);
    if (error || ::chmod(folder_.c_str(), 0700) != 0) {
        throw KeychainError(KeychainError::kIO);
    }
    nlohmann::json item = {
        {"service", service}, {"account", account}, {"label", label}, {"secret", secret}};
    // A crash leaves the old secret or the new one, never a torn one.
    if (!writeWholeFile(fileFor(service, account), item.dump(), 0600)) {
        throw KeychainError(KeychainError::kIO);
    }
}

void FileSecretStore::remove(const std::string& service, const std::string& account) {
    std::error_code error;
    std::filesystem::remove(fileFor(service, account), error);
    if (error) {
        throw KeychainError(KeychainError::kIO);
    }
}

}  // namespace pavix
