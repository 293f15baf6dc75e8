#include "linux/FileSecretStore.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/session/KeychainError.h"

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

// Writes `bytes` to `path` through a temporary file, so that a crash leaves either the old
// or the new secret, never a torn one.
void writeAtomically(const std::filesystem::path& path, const std::string& bytes) {
    auto temporary = path;
    temporary += ".tmp";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw KeychainError(KeychainError::kIO);
    }
    const char* data = bytes.data();
    std::size_t left = bytes.size();
    bool ok = true;
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            ok = false;
            break;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    ok = ok && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (!ok || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        throw KeychainError(KeychainError::kIO);
    }
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
    writeAtomically(fileFor(service, account), item.dump());
}

void FileSecretStore::remove(const std::string& service, const std::string& account) {
    std::error_code error;
    std::filesystem::remove(fileFor(service, account), error);
    if (error) {
        throw KeychainError(KeychainError::kIO);
    }
}

}  // namespace pavix
