#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pavix {

// One HTTP exchange as the client sends it. The body is either `body` (bytes in memory) or
// the contents of `bodyFile`.
struct HttpRequest {
    std::string method = "POST";
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::optional<std::filesystem::path> bodyFile;
    std::chrono::milliseconds timeout{30'000};
    // Replies larger than this are refused rather than held in memory.
    std::size_t maxReplyBytes = 16u << 20;

    std::optional<std::string> header(const std::string& name) const;
};

struct HttpResponse {
    long status = 0;
    std::string body;
};

}  // namespace pavix
