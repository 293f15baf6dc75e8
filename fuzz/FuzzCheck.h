#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

// Shared by the harnesses: a broken promise of the code under test stops the run with the
// promise that was broken, which libFuzzer then reports as a crash with its input.
#define PAVIX_FUZZ_CHECK(condition, what)                                                  \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            std::fprintf(stderr, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, what); \
            std::abort();                                                                  \
        }                                                                                  \
    } while (false)

namespace pavix::fuzz {

inline std::string text(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// The input cut at NUL bytes: an argument vector, or the separate fields of one input.
inline std::vector<std::string> pieces(std::string_view input, char separator = '\0') {
    std::vector<std::string> out;
    while (true) {
        auto cut = input.find(separator);
        out.emplace_back(input.substr(0, cut));
        if (cut == std::string_view::npos) {
            return out;
        }
        input.remove_prefix(cut + 1);
    }
}

}  // namespace pavix::fuzz
