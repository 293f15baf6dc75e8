#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pavix {

// Small rules over UTF-8 text shared by the parts that read names and type characters.
namespace Text {

// `text` with its ASCII letters in lower case; other bytes as they are.
std::string lowerAscii(std::string text);

// The characters of UTF-8 `text`. A byte that does not start a whole, shortest-form sequence
// reads as U+FFFD and the decoding goes on at the next byte.
std::vector<char32_t> characters(const std::string& text);

// The one character `text` encodes, when it is exactly one well-formed UTF-8 character.
std::optional<char32_t> singleCharacter(const std::string& text);

}  // namespace Text

}  // namespace pavix
