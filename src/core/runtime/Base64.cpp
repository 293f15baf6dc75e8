#include "core/runtime/Base64.h"

#include <openssl/evp.h>

namespace pavix::Base64 {

std::string encode(const std::vector<std::uint8_t>& bytes) {
    if (bytes.empty()) {
        return {};
    }
    // Four characters for every three bytes, rounded up, and the terminating zero.
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                        static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(written));
    return text;
}

}  // namespace pavix::Base64
