#pragma once

#include <asio/awaitable.hpp>
#include <asio/thread_pool.hpp>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace pavix {

// The file side of an upload: the fingerprint a video is announced with, and the pieces it is
// sent in. Stateless; the file is read piecewise, so memory stays bounded by one piece however
// large the video is. The asynchronous forms run on the worker pool and resume on the caller's
// executor.
namespace CaptureTransfer {

struct Fingerprint {
    std::int64_t bytes = 0;
    std::string sha256;  // 64 lower-case hexadecimal digits
    bool operator==(const Fingerprint&) const = default;
};

// Files larger than this are not uploaded at all; a file of exactly this size is.
constexpr std::int64_t kUploadLimit = 268'435'456;
// The size of hashing reads and of upload pieces.
constexpr std::int64_t kChunkSize = 4'194'304;

inline constexpr const char* kTooLargeMessage = "Capture exceeds upload limit. Local video saved.";
inline constexpr const char* kEmptyMessage = "Local video is empty.";
inline constexpr const char* kChangedMessage = "Local video changed while uploading.";

// Blocking forms. Throw std::system_error for a file that cannot be opened, seeked or read,
// and PavixError with the sentences above.
Fingerprint fingerprintFile(const std::filesystem::path& file);
// The piece's bytes, held in a string so that they move into the request without a copy.
std::string readChunk(const std::filesystem::path& file, std::int64_t offset, std::int64_t count);

asio::awaitable<Fingerprint> fingerprint(asio::thread_pool& pool, std::filesystem::path file);
asio::awaitable<std::string> chunk(asio::thread_pool& pool, std::filesystem::path file,
                                   std::int64_t offset, std::int64_t count);

}  // namespace CaptureTransfer

}  // namespace pavix
