#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pavix::Base64 {

// Standard base64 (RFC 4648 alphabet) with padding, on one line.
std::string encode(const std::vector<std::uint8_t>& bytes);

}  // namespace pavix::Base64
