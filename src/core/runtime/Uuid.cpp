#include "core/runtime/Uuid.h"

#include <openssl/rand.h>

#include <cctype>
#include <random>

namespace pavix::Uuid {

std::string make() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        std::random_device device;
        for (auto& b : bytes) {
            b = static_cast<unsigned char>(device());
        }
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            out += '-';
        }
        out += hex[bytes[i] >> 4];
        out += hex[bytes[i] & 15];
    }
    return out;
}

bool isValid(std::string_view text) {
    if (text.size() != 36) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) {
            return false;
        }
    }
    return true;
}

std::string upper(std::string_view text) {
    std::string out(text);
    for (auto& c : out) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return out;
}

std::string lower(std::string_view text) {
    std::string out(text);
    for (auto& c : out) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

}  // namespace pavix::Uuid
