#include "devserver/Digest.h"

#include <openssl/evp.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace pavix::devserver::Digest {

namespace {

std::string hex(const unsigned char* d, unsigned n) {
    static const char* k = "0123456789abcdef";
    std::string out;
    out.reserve(n * 2);
    for (unsigned i = 0; i < n; ++i) {
        out += k[d[i] >> 4];
        out += k[d[i] & 0x0f];
    }
    return out;
}

using Ctx = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

}  // namespace

std::string sha256(std::string_view data) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned n = 0;
    EVP_Digest(data.data(), data.size(), md, &n, EVP_sha256(), nullptr);
    return hex(md, n);
}

std::optional<std::string> sha256File(const std::string& path, int64_t bytes) {
    std::unique_ptr<FILE, decltype(&fclose)> f(fopen(path.c_str(), "rb"), &fclose);
    if (!f)
        return std::nullopt;
    Ctx ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr);
    std::vector<char> buf(4 << 20);
    int64_t left = bytes;
    while (left > 0) {
        size_t want =
            static_cast<size_t>(std::min<int64_t>(left, static_cast<int64_t>(buf.size())));
        size_t got = fread(buf.data(), 1, want, f.get());
        if (got == 0)
            return std::nullopt;
        EVP_DigestUpdate(ctx.get(), buf.data(), got);
        left -= static_cast<int64_t>(got);
    }
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned n = 0;
    EVP_DigestFinal_ex(ctx.get(), md, &n);
    return hex(md, n);
}

bool isSha256Hex(std::string_view t) {
    if (t.size() != 64)
        return false;
    for (char c : t) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

}  // namespace pavix::devserver::Digest
