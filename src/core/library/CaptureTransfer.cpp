#include "core/library/CaptureTransfer.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "core/runtime/Offload.h"
#include "core/session/PavixError.h"

namespace pavix::CaptureTransfer {
namespace {

// A read-only descriptor, closed on every path.
class ReadOnlyFile {
  public:
    explicit ReadOnlyFile(const std::filesystem::path& path)
        : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (fd_ < 0) {
            throw std::system_error(errno, std::generic_category(),
                                    "Could not open " + path.filename().string());
        }
    }
    ~ReadOnlyFile() { ::close(fd_); }
    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

    // Reads up to `count` bytes at `offset`, retrying short reads; fewer only at the end.
    std::size_t readAt(std::uint8_t* into, std::size_t count, std::int64_t offset) const {
        std::size_t total = 0;
        while (total < count) {
            auto n = ::pread(fd_, into + total, count - total, offset + std::int64_t(total));
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                throw std::system_error(errno, std::generic_category(), "Could not read video");
            }
            if (n == 0) {
                break;
            }
            total += std::size_t(n);
        }
        return total;
    }

  private:
    int fd_;
};

struct DigestFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

std::string hex(const unsigned char* bytes, unsigned length) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(std::size_t{length} * 2);
    for (unsigned i = 0; i < length; ++i) {
        out.push_back(digits[bytes[i] >> 4]);
        out.push_back(digits[bytes[i] & 0x0f]);
    }
    return out;
}

}  // namespace

Fingerprint fingerprintFile(const std::filesystem::path& file) {
    ReadOnlyFile input(file);
    std::unique_ptr<EVP_MD_CTX, DigestFree> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available");
    }
    std::vector<std::uint8_t> piece(kChunkSize);
    std::int64_t total = 0;
    for (;;) {
        auto n = input.readAt(piece.data(), piece.size(), total);
        if (n == 0) {
            break;
        }
        EVP_DigestUpdate(context.get(), piece.data(), n);
        total += std::int64_t(n);
        // Strictly greater: a file of exactly the limit is uploaded.
        if (total > kUploadLimit) {
            throw PavixError(kTooLargeMessage);
        }
    }
    if (total < 1) {
        throw PavixError(kEmptyMessage);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    return {total, hex(digest, length)};
}

std::string readChunk(const std::filesystem::path& file, std::int64_t offset, std::int64_t count) {
    if (offset < 0 || count < 0) {
        throw std::invalid_argument("a piece starts at a non-negative offset");
    }
    ReadOnlyFile input(file);
    std::string bytes(static_cast<std::size_t>(count), '\0');
    // A short read means the file was truncated or replaced since it was fingerprinted.
    if (input.readAt(reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size(), offset) !=
        bytes.size()) {
        throw PavixError(kChangedMessage);
    }
    return bytes;
}

asio::awaitable<Fingerprint> fingerprint(asio::thread_pool& pool, std::filesystem::path file) {
    auto work = [file = std::move(file)] { return fingerprintFile(file); };
    co_return co_await offload(pool, std::move(work));
}

asio::awaitable<std::string> chunk(asio::thread_pool& pool, std::filesystem::path file,
                                   std::int64_t offset, std::int64_t count) {
    auto work = [file = std::move(file), offset, count] { return readChunk(file, offset, count); };
    co_return co_await offload(pool, std::move(work));
}

}  // namespace pavix::CaptureTransfer
