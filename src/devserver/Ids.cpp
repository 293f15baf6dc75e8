#include "devserver/Ids.h"

#include <openssl/rand.h>

#include <cctype>
#include <stdexcept>
#include <vector>

namespace pavix::devserver::Ids {

namespace {

std::vector<unsigned char> randomBytes(size_t n) {
    std::vector<unsigned char> bytes(n);
    if (RAND_bytes(bytes.data(), static_cast<int>(n)) != 1) {
        throw std::runtime_error("no random bytes available");
    }
    return bytes;
}

const char* kHex = "0123456789abcdef";

}  // namespace

std::string uuid() {
    auto b = randomBytes(16);
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
    std::string out;
    for (size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            out += '-';
        out += kHex[b[i] >> 4];
        out += kHex[b[i] & 0x0f];
    }
    return out;
}

bool isUuid(std::string_view t) {
    if (t.size() != 36)
        return false;
    for (size_t i = 0; i < t.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (t[i] != '-')
                return false;
        } else if (!std::isxdigit(static_cast<unsigned char>(t[i]))) {
            return false;
        }
    }
    return true;
}

bool isLowerUuid(std::string_view t) {
    return isUuid(t) && lower(t) == t;
}

std::string lower(std::string_view t) {
    std::string out(t);
    for (auto& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string token(std::string_view prefix) {
    auto b = randomBytes(32);
    std::string out(prefix);
    for (auto c : b) {
        out += kHex[c >> 4];
        out += kHex[c & 0x0f];
    }
    return out;
}

std::string pairingCode() {
    static const std::string alphabet = "ABCDEFGHJKMNPQRSTUVWXYZ23456789";
    std::string out;
    for (auto c : randomBytes(8))
        out += alphabet[c % alphabet.size()];
    return out;
}

}  // namespace pavix::devserver::Ids
