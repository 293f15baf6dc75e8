#include "core/runtime/Text.h"

#include <algorithm>

namespace pavix::Text {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// The character that starts at `at` and the number of bytes it takes; nothing when the bytes
// there are not one well-formed sequence.
std::optional<std::pair<char32_t, std::size_t>> decodeAt(const std::string& text, std::size_t at) {
    static constexpr char32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<unsigned char>(text[at]);
    const std::size_t length = lead < 0x80             ? 1
                               : (lead & 0xE0) == 0xC0 ? 2
                               : (lead & 0xF0) == 0xE0 ? 3
                               : (lead & 0xF8) == 0xF0 ? 4
                                                       : 0;
    if (length == 0 || at + length > text.size()) {
        return std::nullopt;
    }
    char32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
        const auto next = static_cast<unsigned char>(text[at + k]);
        if ((next & 0xC0) != 0x80) {
            return std::nullopt;
        }
        code = (code << 6) | (next & 0x3F);
    }
    if (code < kShortest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        return std::nullopt;
    }
    return std::pair{code, length};
}

}  // namespace

std::string lowerAscii(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

std::vector<char32_t> characters(const std::string& text) {
    std::vector<char32_t> out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (auto decoded = decodeAt(text, i)) {
            out.push_back(decoded->first);
            i += decoded->second;
        } else {
            out.push_back(kReplacement);
            ++i;
        }
    }
    return out;
}

std::optional<char32_t> singleCharacter(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    auto decoded = decodeAt(text, 0);
    if (!decoded || decoded->second != text.size()) {
        return std::nullopt;
    }
    return decoded->first;
}

}  // namespace pavix::Text
