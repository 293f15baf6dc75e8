#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// SHA-256 as 64 lower-case hexadecimal characters.
namespace pavix::devserver::Digest {

std::string sha256(std::string_view data);
// Digest of the first `bytes` bytes of a file, read in 4 MiB pieces; nothing if it cannot be read
// in full.
std::optional<std::string> sha256File(const std::string& path, int64_t bytes);
bool isSha256Hex(std::string_view text);

}  // namespace pavix::devserver::Digest
